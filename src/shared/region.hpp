#pragma once

/// Finds the region, simulated first, then the one the kernel driver describes, and opens its
/// memory and its shared area file. False when there is none; standard error has the reason.
bool find_region();
