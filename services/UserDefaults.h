#pragma once
// The application's settings file ($XDG_CONFIG_HOME/Quillane/Quillane.conf, INI form,
// organisation and application "Quillane"), as the services read and write it. The file
// also holds the local API's token, so every write leaves it readable by its owner only.
//
// GUI thread only (instances are made per call and not shared).

#include <QSettings>
#include <memory>

namespace quillane::UserDefaults {

std::unique_ptr<QSettings> store();

// Writes `settings` to disk and restricts its file to mode 0600.
void save(QSettings& settings);

}  // namespace quillane::UserDefaults
