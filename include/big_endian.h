/**
 * @file
 * Integers that lie in memory most significant byte first on every host.
 *
 * Every image that crosses a process boundary (messages, log file, alternate event log files,
 * archiver link, parameter block) is a structure of these fields, so its bytes are the same on the
 * board and on the desk. A field has alignment 1 and is trivially copyable; reading it converts to
 * the host's own type, assigning converts back. Handing a field itself to a printf-checked function
 * is refused by the compiler: convert it first.
 */
#ifndef BIG_ENDIAN_H
#define BIG_ENDIAN_H

#include "fixed_width.h"

#include <type_traits>

/**
 * An unsigned integer of @p Width bytes (2, 3 or 4), most significant byte first. A value that
 * needs more than @p Width bytes loses its upper bits.
 */
template <typename Host, unsigned Width>
class BigEndian_t {
    static_assert(std::is_unsigned_v<Host> && Width >= 2 && Width <= 4 && Width <= sizeof(Host));

  public:
    BigEndian_t() = default;
    constexpr BigEndian_t(Host value) { store(value); }
    constexpr BigEndian_t& operator=(Host value) {
        store(value);
        return *this;
    }
    constexpr operator Host() const { return load(); }

  private:
    // Written out for each width: compilers turn this into one load or store and one byte swap, a
    // loop over the bytes stays a loop.
    constexpr Host load() const {
        if constexpr (Width == 2) {
            return static_cast<Host>((bytes_[0] << 8) | bytes_[1]);
        } else if constexpr (Width == 3) {
            return static_cast<Host>((bytes_[0] << 16) | (bytes_[1] << 8) | bytes_[2]);
        } else {
            return (static_cast<Host>(bytes_[0]) << 24) | (static_cast<Host>(bytes_[1]) << 16) |
                   (static_cast<Host>(bytes_[2]) << 8) | bytes_[3];
        }
    }
    constexpr void store(Host value) {
        if constexpr (Width == 2) {
            bytes_[0] = static_cast<U8_t>(value >> 8);
            bytes_[1] = static_cast<U8_t>(value);
        } else if constexpr (Width == 3) {
            bytes_[0] = static_cast<U8_t>(value >> 16);
            bytes_[1] = static_cast<U8_t>(value >> 8);
            bytes_[2] = static_cast<U8_t>(value);
        } else {
            bytes_[0] = static_cast<U8_t>(value >> 24);
            bytes_[1] = static_cast<U8_t>(value >> 16);
            bytes_[2] = static_cast<U8_t>(value >> 8);
            bytes_[3] = static_cast<U8_t>(value);
        }
    }

    U8_t bytes_[Width];
};

using U16be_t = BigEndian_t<U16_t, 2>; ///< 16 bits, 0 to 65,535
using U24be_t = BigEndian_t<U32_t, 3>; ///< 24 bits, 0 to 16,777,215; reads as U32_t
using U32be_t = BigEndian_t<U32_t, 4>; ///< 32 bits

/** What every wire structure promises: no alignment, no constructor, a layout that C would give it.
 */
template <typename Image>
constexpr bool isWireImage =
    alignof(Image) == 1 && std::is_trivially_copyable_v<Image>&& std::is_standard_layout_v<
                               Image>&& std::is_trivial_v<Image>;

static_assert(isWireImage<U16be_t> && sizeof(U16be_t) == 2);
static_assert(isWireImage<U24be_t> && sizeof(U24be_t) == 3);
static_assert(isWireImage<U32be_t> && sizeof(U32be_t) == 4);

#endif
