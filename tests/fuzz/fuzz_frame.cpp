// A byte stream cut into frames, delivered in chunks of arbitrary sizes; each frame's body is read
// as message attributes and its DATA formatted.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ubus/json.hpp"
#include "ubus/wire.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    ubus::FrameReader reader;
    ubus::Frame frame;
    std::string json;
    while (in.remaining_bytes() > 0) {
        // Chunk sizes come from the end of the input, the stream from its start.
        const auto chunk = in.ConsumeIntegralInRange<std::size_t>(1, 64);
        reader.feed(in.ConsumeBytes<std::uint8_t>(chunk));
        ubus::FrameReader::Result r;
        while ((r = reader.next(frame)) == ubus::FrameReader::Result::Frame) {
            if (frame.bytes.size() < ubus::kHeaderLen + 4 ||
                frame.bytes.size() > ubus::kHeaderLen + ubus::kMaxBodyLen)
                std::abort();
            const ubus::MsgAttrs attrs = frame.attrs();
            for (std::uint32_t id = 0; id <= ubus::kAttrCount; ++id) {
                (void)attrs.u32(id);
                (void)attrs.u8(id);
                (void)attrs.str(id);
            }
            json.clear();
            ubus::json_format_list(json, attrs.data(), false);
            ubus::json_format_list(json, attrs[ubus::kAttrSignature].payload(), false,
                                   ubus::JsonFormat::indented());
        }
        if (r == ubus::FrameReader::Result::Error) break;  // the connection would be dropped here
    }
    return 0;
}
