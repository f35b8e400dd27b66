#pragma once
// A failed assertion on Qt's strings, bytes and links shows their text, not the bytes of the object
// (QStringList's elements too). The Qt test executables take this header with their precompiled ones.
#include <QByteArray>
#include <QString>
#include <QUrl>
#include <ostream>

inline void PrintTo(const QByteArray& bytes, std::ostream* out) { *out << '"' << bytes.toStdString() << '"'; }
inline void PrintTo(const QString& text, std::ostream* out) { PrintTo(text.toUtf8(), out); }
inline void PrintTo(const QUrl& url, std::ostream* out) { PrintTo(url.toString(), out); }
