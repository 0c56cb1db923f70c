/**
 * @file
 * The bug-check: the one way in which the event manager stops on an error that it cannot survive.
 */
#ifndef EMP_FAULT_BUGCHECK_H
#define EMP_FAULT_BUGCHECK_H

/** Where a bug-check says that it happened. */
struct EmpSite_t {
    int line;             ///< source line
    const char* function; ///< function name as reported
};

/** The source file that every bug-check of the event manager names. */
inline constexpr char EMP_SOURCE_NAME[] = "empmain";

/** This place, under the name of the function that it stands in. */
#define EMP_HERE (EmpSite_t{__LINE__, __func__})

/**
 * This place, under the name of the function whose steps it carries out: for helpers of that
 * function, and for the places that report themselves under another function's name.
 */
#define EMP_HERE_IN(functionName) (EmpSite_t{__LINE__, (functionName)})

/**
 * Reports the error with the whole state of the event manager, and aborts.
 * @param fileName source file, without extension
 * @param lineNo   source line
 * @param fnName   function
 * @param msg      printf format of the message, with its arguments
 */
[[noreturn]] void empFault(const char* fileName, int lineNo, const char* fnName, const char* msg,
                           ...) __attribute__((format(printf, 4, 5)));

/** Bug-check at a site. Usage: EMP_BUGCHECK(EMP_HERE, "message", arguments). */
#define EMP_BUGCHECK(site, ...)                                                                    \
    do {                                                                                           \
        const EmpSite_t bugCheckSite = (site);                                                     \
        empFault(EMP_SOURCE_NAME, bugCheckSite.line, bugCheckSite.function, __VA_ARGS__);          \
    } while (false)

#endif
