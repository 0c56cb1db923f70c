/**
 * @file
 * The archiver link as bytes: where a request ends, whether the stream still has its message
 * borders, and the responses. Nothing here knows sockets or storage.
 */
#ifndef EVARCHIVER_PROTOCOL_H
#define EVARCHIVER_PROTOCOL_H

#include "emp_mesgs.h"

#include <algorithm>
#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace evarchive {

using Bytes = std::vector<U8_t>;
using View = std::span<const U8_t>;

constexpr std::size_t HEADER_SIZE = sizeof(EmpEvArchiverMsgHeader_t);
constexpr U16_t HEADER_VERSION = 1;

/** Bytes of a header that tell a border: version, length, type, flag. Return code and handle may be
 * anything. */
constexpr std::size_t BORDER_SIZE = offsetof(EmpEvArchiverMsgHeader_t, evArchiverMsgReturnCode);

/** Four bytes follow a status request that its header does not announce: 196 on the wire. */
constexpr std::size_t STATUS_REQUEST_TRAILER = 4;
constexpr std::size_t STATUS_REQUEST_SIZE =
    HEADER_SIZE + sizeof(EmpGetEvArchiverStatusMsg_t) + STATUS_REQUEST_TRAILER;
static_assert(STATUS_REQUEST_SIZE == 196);

constexpr U16_t LARGEST_EVENT_BODY = EMP_EVENT_HEADER_SIZE + EMP_MAX_STRUCT;
constexpr std::size_t LARGEST_REQUEST = HEADER_SIZE + LARGEST_EVENT_BODY;
static_assert(LARGEST_REQUEST == 4016);

constexpr U8_t LARGEST_SOURCE = 34; ///< endpoints above it cannot log an event

/** What the bytes at a supposed message border are. */
enum class Border {
    MORE,  ///< so far as they go, the beginning of a request
    WHOLE, ///< a whole request
    LOST,  ///< no request begins here: the stream has lost its message borders
};

/** The judgement of a border. */
struct Judgement {
    Border border = Border::MORE;
    std::size_t size = 0;    ///< WHOLE: bytes on the wire, the trailer of a status request included
    const char* reason = ""; ///< LOST: what does not fit, as a text for people
};

/**
 * Judges the bytes at a supposed message border. Every byte is judged as soon as it is there, so
 * that a lost border shows with its first wrong byte. Judged are the fields that the event manager
 * never sends otherwise: version, flag, type, the type's body length, an event's own length and
 * source, an inquiry's type.
 * @param bytes what has been received from the border on; may be empty
 */
Judgement judgeBorder(View bytes);

/** Type of a whole request, EMP_MESGS_TYPE_e. */
U16_t typeOf(View request);

/** Handle of a whole request, to be echoed. */
U32_t handleOf(View request);

/** Body of a whole request, without the trailer of a status request. */
View bodyOf(View request);

/** A copy of the fixed part of a body. @p body has at least its size. */
template <typename Image>
Image imageOf(View body);

/** The text of a 64-byte field: up to its first NUL, or all of it. */
std::string textOf(const U8_t (&field)[EMP_ID_TEXT_SIZE]);

/**
 * A whole response, header and body, ready for one send.
 * @param type       EMP_MESGS_TYPE_e
 * @param returnCode EMP_RESPONSE_e
 */
Bytes makeResponse(U16_t type, U32_t returnCode, U32_t handle, View body);

/** The answer to an inquiry that found an event: return code 1. @param event its stored body */
Bytes makeEventAnswer(U32_t handle, View event);

/** The answer to an inquiry without an event: the identity and the id asked about echoed, no data.
 * @param returnCode EMP_E_RESPONSE_FAILURE: there is none; EMP_E_RESPONSE_RESOURCE_NOT_AVAILABLE:
 * it cannot be had now */
Bytes makeEmptyAnswer(U32_t handle, const EmpEvInquiryMsg_t& inquiry, EMP_RESPONSE_e returnCode);

/** The answer to a status request: its body echoed, but for the id and the flag. */
Bytes makeStatusAnswer(U32_t handle, const EmpGetEvArchiverStatusMsg_t& request,
                       U32_t sequenceIdLast, U32_t controlFlag);

template <typename Image>
Image imageOf(View body) {
    static_assert(isWireImage<Image>);
    Image image;
    std::copy_n(body.begin(), sizeof(image), reinterpret_cast<U8_t*>(&image));
    return image;
}

/** The bytes of a wire image. */
template <typename Image>
View viewOf(const Image& image) {
    static_assert(isWireImage<Image>);
    return {reinterpret_cast<const U8_t*>(&image), sizeof(image)};
}

} // namespace evarchive

#endif
