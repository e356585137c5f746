// Where the direct traces of the platform adapters stand. Log consumers match on source, line and
// function, so these stay as they are wherever the code moves.

#pragma once

#include <Qel/Assert>

namespace QelKrell::position {

inline constexpr int stepLevel = 5;   // routine messages
inline constexpr int caughtLevel = 1; // exceptions that were caught

inline constexpr const char* source = "Platform";

inline constexpr Qel::SourcePosition timerIgnoringOrphan { source, 37, "onTime" };
inline constexpr Qel::SourcePosition timerNotifieeGone { source, 55, "~Notifiee" };
inline constexpr Qel::SourcePosition timerOrphan { source, 60, "orphan" };
inline constexpr Qel::SourcePosition timerOnTime { source, 69, "onTime" };
inline constexpr Qel::SourcePosition setTimeout { source, 91, "setTimeout" };
inline constexpr Qel::SourcePosition delTimeout { source, 96, "delTimeout" };

inline constexpr Qel::SourcePosition fdIgnoringOrphan { source, 118, "onReadableCount" };
inline constexpr Qel::SourcePosition fdNotifieeGone { source, 136, "~Notifiee" };
inline constexpr Qel::SourcePosition fdOrphan { source, 145, "orphan" };
inline constexpr Qel::SourcePosition fdOnReadableCount { source, 157, "onReadableCount" };
inline constexpr Qel::SourcePosition fdDone { source, 179, "FileDescriptor" };
inline constexpr Qel::SourcePosition setFd { source, 191, "setFd" };
inline constexpr Qel::SourcePosition delFd { source, 199, "delFd" };

inline constexpr Qel::SourcePosition watchIgnoringOrphan { source, 224, "onWatchCount" };
inline constexpr Qel::SourcePosition watchNotifieeGone { source, 241, "~Notifiee" };
inline constexpr Qel::SourcePosition watchOrphan { source, 246, "orphan" };
inline constexpr Qel::SourcePosition watchOnWatchCount { source, 256, "onWatchCount" };
inline constexpr Qel::SourcePosition watchDone { source, 291, "WatchDescriptor" };
inline constexpr Qel::SourcePosition setWatch { source, 303, "setWatch" };
inline constexpr Qel::SourcePosition delWatch { source, 309, "delWatch" };

inline constexpr Qel::SourcePosition printerCaught { source, 395, "toString" };

} // namespace QelKrell::position
