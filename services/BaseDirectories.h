#pragma once
// The environment that says where a user's files go, put right before anything reads it:
// QStandardPaths takes an XDG base-directory variable holding a relative path as relative to
// the working folder (the settings, with the local API's token, would land wherever the
// program was started), and, without HOME, the root folder as the home. As the XDG base
// directory rules ask, a variable that is not an absolute path is ignored (unset, so that its
// default applies), and an unset or relative HOME is taken from the user's entry in the
// password database.
//
// Call first thing in main, before any thread runs: it changes the process's environment.

namespace quillane::BaseDirectories {

void settle();

}  // namespace quillane::BaseDirectories
