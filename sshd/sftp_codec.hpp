#pragma once
// The SFTP version 3 wire format: packets are a uint32 length, a type byte and the fields;
// integers are big-endian, strings carry a uint32 length. Reading never runs past the bytes
// given: a field that does not fit marks the reader failed and reads as zero or empty.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace orv::sftp {

enum PacketType : uint8_t {
    kInit = 1,
    kVersion = 2,
    kOpen = 3,
    kClose = 4,
    kRead = 5,
    kWrite = 6,
    kLstat = 7,
    kFstat = 8,
    kSetstat = 9,
    kFsetstat = 10,
    kOpendir = 11,
    kReaddir = 12,
    kRemove = 13,
    kMkdir = 14,
    kRmdir = 15,
    kRealpath = 16,
    kStat = 17,
    kRename = 18,
    kReadlink = 19,
    kSymlink = 20,
    kStatusReply = 101,
    kHandleReply = 102,
    kDataReply = 103,
    kNameReply = 104,
    kAttrsReply = 105,
    kExtended = 200,
    kExtendedReply = 201,
};

enum Status : uint32_t {
    kOk = 0,
    kEof = 1,
    kNoSuchFile = 2,
    kPermissionDenied = 3,
    kFailure = 4,
    kBadMessage = 5,
    kOpUnsupported = 8,
};

// The short English text sent with each status.
const char* status_text(Status status);

// Open flags.
enum OpenFlags : uint32_t {
    kOpenRead = 0x01,
    kOpenWrite = 0x02,
    kOpenAppend = 0x04,
    kOpenCreate = 0x08,
    kOpenTruncate = 0x10,
    kOpenExclusive = 0x20,
};

// Attribute flags.
enum AttrFlags : uint32_t {
    kAttrSize = 0x1,
    kAttrUidGid = 0x2,
    kAttrPermissions = 0x4,
    kAttrTimes = 0x8,
    kAttrExtended = 0x80000000u,
};

struct Attrs {
    uint32_t flags = 0;
    uint64_t size = 0;
    uint32_t uid = 0;
    uint32_t gid = 0;
    uint32_t permissions = 0; // file type bits and mode
    uint32_t atime = 0;
    uint32_t mtime = 0;
};

// The largest packet accepted: a write of 256 KiB and its header fields.
constexpr size_t kMaxPacket = 256 * 1024 + 1024;
// The most a read hands back at once.
constexpr uint32_t kMaxReadChunk = 256 * 1024;

class Reader {
  public:
    explicit Reader(std::string_view bytes) : data_(bytes) {}
    uint8_t u8();
    uint32_t u32();
    uint64_t u64();
    std::string_view str();
    // Attributes; extended pairs are read and dropped.
    Attrs attrs();
    bool ok() const { return ok_; }
    size_t left() const { return data_.size() - at_; }

  private:
    bool take(size_t n);
    std::string_view data_;
    size_t at_ = 0;
    bool ok_ = true;
};

// Builds one reply packet: begin() leaves room for the length, finish() fills it in.
class Writer {
  public:
    explicit Writer(std::string& out) : out_(out) {}
    void begin(PacketType type);
    void u8(uint8_t v) { out_.push_back(static_cast<char>(v)); }
    void u32(uint32_t v);
    void u64(uint64_t v);
    void str(std::string_view s);
    void attrs(const Attrs& a);
    void finish();

  private:
    std::string& out_;
    size_t start_ = 0;
};

// The replies every request may get, appended to `out`.
void put_status(std::string& out, uint32_t id, Status status);
void put_handle(std::string& out, uint32_t id, std::string_view handle);
void put_attrs(std::string& out, uint32_t id, const Attrs& attrs);
struct NameEntry {
    std::string name;
    std::string long_name;
    Attrs attrs;
};
void put_names(std::string& out, uint32_t id, const std::vector<NameEntry>& names);

// Collects the bytes read from the channel and hands out whole packets.
class PacketBuffer {
  public:
    enum class Next { none, packet, too_large };
    // Where to read up to `room` more bytes, then commit() how many arrived.
    char* space(size_t room);
    void commit(size_t n) { end_ += n; }
    // The next whole packet (its type byte onward), valid until the next call of any member.
    Next next(std::string_view& packet);
    size_t buffered() const { return end_ - begin_; }

  private:
    std::vector<char> buf_;
    size_t begin_ = 0;
    size_t end_ = 0;
};

} // namespace orv::sftp
