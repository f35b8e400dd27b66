#pragma once
// The application's settings file ($XDG_CONFIG_HOME/Quillane/Quillane.conf, INI form), as the
// services read and write it. The file also holds the local API's token, so every write
// leaves it readable by its owner only.
//
// GUI thread only (instances are made per call and not shared).

#include <QSettings>
#include <memory>

namespace quillane::SettingsFile {

// $XDG_CONFIG_HOME/Quillane/Quillane.conf, read from the environment at each call.
QString path();

// The settings in path(). A file there that could not be read safely (a pipe, folder, device
// or socket, a link to one, a file that can't be opened or is far larger than any we write),
// or a lock file beside it that is no regular file, gives the defaults: nothing is read from
// it and nothing written over it, and what is set holds until the process ends. Qt's reader would otherwise
// wait on a pipe, or take a huge file into memory, and its lock wait forever on a pipe or folder in the
// lock's place.
std::unique_ptr<QSettings> store();

// Removes the private file store() fell back to for this run, if any, as its end would: for a
// process that ends without running its static destructors (_exit).
void removeRunFile();

// Writes `settings` to disk and restricts its file to mode 0600. Where the file can't be written
// (a read-only or full disk), what `settings` holds is kept for the run as above, and the file
// is left as it is.
void save(QSettings& settings);

// A switch read strictly: only "true", "1", "yes" and "on" (in any case) are true; anything
// else, "no", "off" and a missing key included, is false.
bool boolValue(const QSettings& settings, QAnyStringView key);

// A text read as one string whatever it holds: a hand-written value with commas, which the
// INI reader splits into a list, is joined back.
QString stringValue(const QSettings& settings, QAnyStringView key);

}  // namespace quillane::SettingsFile
