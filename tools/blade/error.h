/** @file */
#ifndef BLADE_ERROR_H
#define BLADE_ERROR_H

#include <stdexcept>

namespace blade {

/** Why a blade cannot come up; what() is a whole sentence for the user. */
class BladeError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace blade

#endif
