#pragma once

/// What tarvo_unregister_device returns for a device that is not registered.
inline constexpr int not_registered = -2;
