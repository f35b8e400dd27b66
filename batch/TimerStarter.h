#pragma once
// The one-shot timers of the batch and the hot folders (deadlines, quiet times), started through
// a function so that a test can pass a clock of its own to say when time passes.

#include <chrono>
#include <functional>

class QObject;

namespace quillane {

// Starts a one-shot timer: `fire` is called on `owner`'s thread once `delay` has passed, unless
// the returned object, a child of `owner` that goes by itself after firing, was deleted first.
using TimerStarter =
    std::function<QObject*(std::chrono::milliseconds delay, QObject* owner, std::function<void()> fire)>;

// The product's: a single-shot QTimer.
QObject* startQTimer(std::chrono::milliseconds delay, QObject* owner, std::function<void()> fire);

}  // namespace quillane
