// The reply envelope of the Packages, per-package and execution-environment objects: a "Header"
// naming the outcome and, when the method has data, a "Body". The outcome travels only inside the
// message: these methods always return success to the bus.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "ubus/blob.hpp"
#include "ubus/client.hpp"

namespace pkgd {

// Result numbers; the number indexes hlapi_return_name.
enum hlapi_result : std::int32_t {
    HLAPI_OK = 0,
    HLAPI_ARGUMENT_NOT_FOUND = 1,
    HLAPI_ARGUMENT_DATA_TYPE_MISMATCH = 2,
    HLAPI_METHOD_NOT_FOUND = 3,
    HLAPI_OBJECT_NOT_FOUND = 4,
    HLAPI_ARGUMENT_REQUIRED_MISSING = 5,
    HLAPI_OPERATION_PERMISSION_DENIED = 6,
    HLAPI_OPERATION_TIMEOUT = 7,
    HLAPI_OPERATION_ALREADY_IN_PROGRESS = 8,
    HLAPI_OPERATION_ILLEGAL = 9,
    HLAPI_OPERATION_ERROR = 10,
    HLAPI_ARGUMENT_VALUE_NOT_SUPPORTED = 11,
};

// The names that go on the wire, by result number.
inline constexpr std::array<std::string_view, 12> hlapi_return_name = {
    "OK",
    "ARGUMENT_NOT_FOUND",
    "ARGUMENT_DATA_TYPE_MISMATCH",
    "METHOD_NOT_FOUND",
    "OBJECT_NOT_FOUND",
    "ARGUMENT_REQUIRED_MISSING",
    "OPERATION_PERMISSION_DENIED",
    "OPERATION_TIMEOUT",
    "OPERATION_ALREADY_IN_PROGRESS",
    "OPERATION_ILLEGAL",
    "OPERATION_ERROR",
    "ARGUMENT_VALUE_NOT_SUPPORTED",
};

// Fills `reply` (cleared first) with the envelope: table "Header" holding string "Name", then,
// when `body` is present, table "Body" holding the body's members byte for byte (an empty body
// still gives an empty "Body"). A result outside the table leaves `reply` an empty table.
// `body` is the root of the method's own body buffer (BlobBuf::root()), or absent for none.
void hlapi_reply(std::int32_t result, ubus::Attr body, ubus::BlobBuf& reply);

// What every enveloped method does last: wraps the outcome, sends it as the one reply to `req`,
// and gives the status the method returns to the bus: success, whatever the outcome, unless the
// reply could not be sent (kUnknownError, for instance for a reply beyond the bus's message size).
int hlapi_send(ubus::Request& req, std::int32_t result, ubus::Attr body = {});

}  // namespace pkgd
