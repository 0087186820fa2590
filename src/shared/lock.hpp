#pragma once

/// Takes the cross-process lock, waiting as long as it takes. Returns 0, or what flock returned
/// after saying why on standard error. Processes are kept apart, threads of one process are not.
int tarvo_lock();

/// Releases the cross-process lock. Returns 0; a lock that cannot be released ends the process.
int tarvo_unlock();

/// Holds the cross-process lock for a scope, or until it is released early. Where taking it
/// failed, nothing is held and nothing will be released: the caller asks held() first.
class lock_guard {
  public:
    lock_guard() : _held(tarvo_lock() == 0) {}
    ~lock_guard() { release(); }
    lock_guard(const lock_guard&) = delete;
    lock_guard& operator=(const lock_guard&) = delete;

    bool held() const { return _held; }

    void release() {
        if (_held) {
            _held = false;
            tarvo_unlock();
        }
    }

    /// Takes the lock once more to undo what was done. Counts as held even when that fails: the
    /// half-made change has to be undone all the same.
    void retake() {
        tarvo_lock();
        _held = true;
    }

  private:
    bool _held;
};
