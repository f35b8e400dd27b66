#pragma once
// How the processes that compress files for a caller end when they are told to (quillane-cli
// compress, quillane --compress): Ctrl+C, SIGTERM and SIGHUP end them as they would have, but only
// once the files being written are whole under their names (or endingBound later, where a write is
// stuck). Ended in the middle of one, a process would leave its temporary in the user's folder.

#include <chrono>

namespace quillane::TerminationSignals {

// One thread of its own takes the three signals from here on; call it before any other thread
// exists, since each later one inherits their block. A signal the process was started to ignore
// (`nohup`, a background job of a script) stays ignored. On one of the others it waits for the
// writes under way (FileIO::stopWritesForExit), endingBound at most, and ends by that signal; a second
// signal meanwhile ends it at once.
void endOnceWritesAreWhole();

// How long a process that is ending waits for the work under way: long enough for a file being
// written to a working disk to become whole, short enough that a write stuck on a volume that stopped
// answering (a network server gone, a stick pulled) never keeps the process, which then leaves at most
// that write's temporary. The threads stuck there end with the process.
inline constexpr std::chrono::seconds endingBound{5};

}  // namespace quillane::TerminationSignals
