#pragma once

/// Finds the region, simulated first, then the one the kernel driver describes, and opens its
/// memory and its shared area file. False when there is none; standard error has been told.
bool find_region();
