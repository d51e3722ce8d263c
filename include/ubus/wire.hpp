// ubus message framing, shared by the client library and the broker: the 8-byte message header,
// the body attributes, status codes, building frames in place and reading them from a stream.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ubus/blob.hpp"
#include "ubus/fd.hpp"

namespace ubus {

constexpr const char* kDefaultSocket = "/var/run/ubus/ubus.sock";
constexpr std::size_t kHeaderLen = 8;
constexpr std::size_t kMaxBodyLen = 1u << 20;  // padded body length limit

enum class MsgType : std::uint8_t {
    Hello = 0,
    Status = 1,
    Data = 2,
    Ping = 3,
    Lookup = 4,
    Invoke = 5,
    AddObject = 6,
    RemoveObject = 7,
    Subscribe = 8,
    Unsubscribe = 9,
    Notify = 10,
    Monitor = 11,
};

// Body attribute numbers.
enum : std::uint32_t {
    kAttrStatus = 1,
    kAttrObjPath = 2,
    kAttrObjId = 3,
    kAttrMethod = 4,
    kAttrObjType = 5,
    kAttrSignature = 6,
    kAttrData = 7,
    kAttrTarget = 8,
    kAttrActive = 9,
    kAttrNoReply = 10,
    kAttrSubscribers = 11,
    kAttrUser = 12,
    kAttrGroup = 13,
    kAttrCount = 14,
};

// Status codes.
enum Status : int {
    kOk = 0,
    kInvalidCommand = 1,
    kInvalidArgument = 2,
    kMethodNotFound = 3,
    kNotFound = 4,
    kNoData = 5,
    kPermissionDenied = 6,
    kTimeout = 7,
    kNotSupported = 8,
    kUnknownError = 9,
    kConnectionFailed = 10,
    kNoMemory = 11,
    kParseError = 12,
    kSystemError = 13,
};

// "Success", "Invalid command", ... and "Unknown error: <n>" for anything else.
std::string status_text(int status);

// Reserved object ids.
constexpr std::uint32_t kEventObject = 1;
constexpr std::uint32_t kAclObject = 2;
constexpr std::uint32_t kMonitorObject = 3;

struct MsgHeader {
    std::uint8_t version = 0;
    MsgType type = MsgType::Hello;
    std::uint16_t seq = 0;
    std::uint32_t peer = 0;
};

// The body attributes indexed by number: the last well-formed occurrence of each counts;
// numbers 14 and above are ignored; an occurrence of the wrong size is ignored.
class MsgAttrs {
public:
    MsgAttrs() = default;
    explicit MsgAttrs(Bytes body_payload);

    Attr operator[](std::uint32_t id) const { return id < kAttrCount ? tb_[id] : Attr(); }
    bool has(std::uint32_t id) const { return static_cast<bool>((*this)[id]); }
    std::uint32_t u32(std::uint32_t id) const { return (*this)[id].u32(); }
    std::uint8_t u8(std::uint32_t id) const { return (*this)[id].u8(); }
    std::string_view str(std::uint32_t id) const { return (*this)[id].str(); }
    // DATA: the blobmsg members it holds.
    Bytes data() const { return (*this)[kAttrData].payload(); }

private:
    std::array<Attr, kAttrCount> tb_{};
};

// A received message. `bytes` is the whole frame (header and body); it stays valid until the
// next call into the reader that produced it.
struct Frame {
    MsgHeader hdr;
    Bytes bytes;
    UniqueFd fd;  // a descriptor that travelled with this message, if any

    Bytes body() const { return bytes.subspan(kHeaderLen); }  // root attribute
    Bytes body_payload() const { return bytes.subspan(kHeaderLen + 4); }
    MsgAttrs attrs() const { return MsgAttrs(body_payload()); }
};

// Builds one frame in place: header, then a body whose attributes are added with the BlobBuf
// put_* calls. `frame()` fills in the header and returns the bytes to send.
class MsgBuf : public BlobBuf {
public:
    MsgBuf() : BlobBuf(0, kHeaderLen) {}
    MsgBuf(MsgType type, std::uint16_t seq, std::uint32_t peer) : MsgBuf() { start(type, seq, peer); }
    void start(MsgType type, std::uint16_t seq, std::uint32_t peer);
    // The body attribute DATA holding the members of a blobmsg buffer.
    void put_data(const BlobBuf& b) { put_raw(kAttrData, b.members()); }
    Bytes frame();
    const MsgHeader& header() const { return hdr_; }

private:
    MsgHeader hdr_;
};

// Writes a header into the first 8 bytes of `out`.
void encode_header(std::uint8_t* out, const MsgHeader& h);
MsgHeader decode_header(const std::uint8_t* in);

// Incremental reader of a byte stream of frames. Feed it from a socket with read_from();
// then take complete frames with next(). A header announcing a body below 4 bytes or above
// the limit is fatal for the connection.
class FrameReader {
public:
    enum class Result { Frame, NeedMore, Closed, Error };

    // Reads what the socket has (non-blocking or after poll), collecting any passed descriptor.
    // Returns Closed on end of stream, Error on a read error, NeedMore otherwise.
    Result read_from(int fd);
    // Appends bytes directly (tests, replays).
    void feed(Bytes bytes);
    // Extracts the next complete frame into `out`. Returns Frame, NeedMore or Error (bad header).
    Result next(Frame& out);
    std::size_t buffered() const { return end_ - begin_; }
    // Descriptors received but not yet handed out with a frame.
    std::size_t pending_fds() const { return fds_.size(); }

private:
    void compact();
    std::vector<std::uint8_t> buf_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    // Descriptors received, each with the stream offset of the read that carried it; a
    // descriptor belongs to the last frame that starts within that read.
    struct PendingFd {
        std::uint64_t read_start;
        std::uint64_t read_end;
        UniqueFd fd;
    };
    std::vector<PendingFd> fds_;
    std::uint64_t consumed_ = 0;  // stream offset of buf_[begin_]
};

// Sends a whole frame, with an optional descriptor (not closed). Handles partial writes by
// polling; returns false if the peer is gone or on error. For blocking use by clients.
bool send_frame_blocking(int fd, Bytes frame, int pass_fd = -1);

// One non-blocking sendmsg() of `n` buffers that also passes `pass_fd` when it is not negative.
// Returns what sendmsg returns; on -1, errno says why.
ssize_t send_with_fd(int sock, const iovec* iov, std::size_t n, int pass_fd);

}  // namespace ubus
