// Leaving without exit handlers and destructors.
#pragma once

// Ends the process at once with `status`.
[[noreturn]] void PLATFORM_LEAVE(int status);
