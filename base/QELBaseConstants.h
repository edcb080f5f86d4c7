// Names shared by the updater base services: error domains, exception names,
// user-info keys, settings keys and the control commands of the pipes.
#pragma once

inline constexpr char QEL_ERROR_DOMAIN[] = "com.corvane.QEL";
inline constexpr char QEL_OSSTATUS_ERROR_DOMAIN[] = "com.corvane.QEL.OSStatus";
inline constexpr char QEL_ERROR_KEY[] = "QELErrorKey";
inline constexpr char QEL_OS_EXCEPTION_KEY[] = "QELOSExceptionKey";
inline constexpr char QEL_FATAL_EXCEPTION_NAME[] = "QELFatalException";
inline constexpr char QEL_NON_FATAL_EXCEPTION_NAME[] = "QELNonFatalException";
inline constexpr char FORCE_ERROR_KEY[] = "ForceError";
inline constexpr char FORCE_ERROR_SKIP_COUNT_KEY[] = "ForceErrorSkipCount";
inline constexpr char APP_TYPE_KEY[] = "AppType";
inline constexpr char LOG_LEVEL_KEY[] = "LogLevel";

// Control commands of the command pipes; each is followed by one line: the
// error code as decimal text, or the message to log at level 0 or 1.
inline constexpr char kCommandError[] = "error";
inline constexpr char kCommandLogNormal[] = "log-normal";
inline constexpr char kCommandLogVerbose[] = "log-verbose";
