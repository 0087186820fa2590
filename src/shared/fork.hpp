#pragma once

/// Gives every later child of this process a lock of its own: flock() keeps open files apart, not
/// processes, and fork() lets a child share its parent's. Called once, when the library has
/// started.
void part_children_from_the_lock();
