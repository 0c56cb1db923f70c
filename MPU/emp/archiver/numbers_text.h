/**
 * @file
 * A debug-line text that a caller hands to a shared step.
 */
#ifndef EMP_ARCHIVER_NUMBERS_TEXT_H
#define EMP_ARCHIVER_NUMBERS_TEXT_H

/**
 * A printf format that takes exactly @p Numbers ints, by "%d", and nothing else. The literal stands
 * whole at the caller and is checked there by the compiler, as a format of empDebugLine() would be.
 */
template <int Numbers>
class EmpNumbersText_t {
  public:
    consteval EmpNumbersText_t(const char* text) : format(text) {
        int numbers = 0;
        for (const char* at = text; *at != '\0'; at++) {
            if (*at == '%') {
                at++;
                numbers += *at == 'd' ? 1 : Numbers + 1;
            }
        }
        if (numbers != Numbers) {
            throw "the text does not take that many numbers";
        }
    }

    const char* format; ///< for empDebugLine(), with Numbers arguments of type int
};

#endif
