#include "sshd/sftp_codec.hpp"

#include <cstring>

namespace orv::sftp {

const char* status_text(Status status) {
    switch (status) {
    case kOk:
        return "Success";
    case kEof:
        return "End of file";
    case kNoSuchFile:
        return "No such file";
    case kPermissionDenied:
        return "Permission denied";
    case kFailure:
        return "Failure";
    case kBadMessage:
        return "Bad message";
    case kOpUnsupported:
        return "Operation unsupported";
    }
    return "Failure";
}

bool Reader::take(size_t n) {
    if (!ok_ || data_.size() - at_ < n) {
        ok_ = false;
        return false;
    }
    return true;
}

uint8_t Reader::u8() {
    if (!take(1))
        return 0;
    return static_cast<uint8_t>(data_[at_++]);
}

uint32_t Reader::u32() {
    if (!take(4))
        return 0;
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i)
        v = (v << 8) | static_cast<uint8_t>(data_[at_++]);
    return v;
}

uint64_t Reader::u64() {
    uint64_t high = u32();
    uint64_t low = u32();
    return ok_ ? (high << 32) | low : 0;
}

std::string_view Reader::str() {
    uint32_t n = u32();
    if (!take(n))
        return {};
    std::string_view s = data_.substr(at_, n);
    at_ += n;
    return s;
}

Attrs Reader::attrs() {
    Attrs a;
    a.flags = u32();
    if (a.flags & kAttrSize)
        a.size = u64();
    if (a.flags & kAttrUidGid) {
        a.uid = u32();
        a.gid = u32();
    }
    if (a.flags & kAttrPermissions)
        a.permissions = u32();
    if (a.flags & kAttrTimes) {
        a.atime = u32();
        a.mtime = u32();
    }
    if (a.flags & kAttrExtended) {
        uint32_t count = u32();
        // Each pair takes at least eight bytes, so a huge count ends at the packet's end.
        for (uint32_t i = 0; i < count && ok_; ++i) {
            str();
            str();
        }
    }
    if (!ok_)
        return Attrs{};
    return a;
}

void Writer::begin(PacketType type) {
    start_ = out_.size();
    out_.append(4, '\0');
    u8(type);
}

void Writer::u32(uint32_t v) {
    char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                 static_cast<char>(v)};
    out_.append(b, 4);
}

void Writer::u64(uint64_t v) {
    u32(static_cast<uint32_t>(v >> 32));
    u32(static_cast<uint32_t>(v));
}

void Writer::str(std::string_view s) {
    u32(static_cast<uint32_t>(s.size()));
    out_.append(s);
}

void Writer::attrs(const Attrs& a) {
    uint32_t flags = a.flags & ~kAttrExtended;
    u32(flags);
    if (flags & kAttrSize)
        u64(a.size);
    if (flags & kAttrUidGid) {
        u32(a.uid);
        u32(a.gid);
    }
    if (flags & kAttrPermissions)
        u32(a.permissions);
    if (flags & kAttrTimes) {
        u32(a.atime);
        u32(a.mtime);
    }
}

void Writer::finish() {
    uint32_t n = static_cast<uint32_t>(out_.size() - start_ - 4);
    for (int i = 0; i < 4; ++i)
        out_[start_ + i] = static_cast<char>(n >> (24 - 8 * i));
}

void put_status(std::string& out, uint32_t id, Status status) {
    Writer w(out);
    w.begin(kStatusReply);
    w.u32(id);
    w.u32(status);
    w.str(status_text(status));
    w.str(""); // language tag
    w.finish();
}

void put_handle(std::string& out, uint32_t id, std::string_view handle) {
    Writer w(out);
    w.begin(kHandleReply);
    w.u32(id);
    w.str(handle);
    w.finish();
}

void put_attrs(std::string& out, uint32_t id, const Attrs& attrs) {
    Writer w(out);
    w.begin(kAttrsReply);
    w.u32(id);
    w.attrs(attrs);
    w.finish();
}

void put_names(std::string& out, uint32_t id, const std::vector<NameEntry>& names) {
    Writer w(out);
    w.begin(kNameReply);
    w.u32(id);
    w.u32(static_cast<uint32_t>(names.size()));
    for (const NameEntry& e : names) {
        w.str(e.name);
        w.str(e.long_name);
        w.attrs(e.attrs);
    }
    w.finish();
}

char* PacketBuffer::space(size_t room) {
    if (begin_ == end_)
        begin_ = end_ = 0;
    if (buf_.size() - end_ < room) {
        // Move what is left of a packet to the front before growing.
        if (begin_ > 0) {
            std::memmove(buf_.data(), buf_.data() + begin_, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
        }
        if (buf_.size() - end_ < room)
            buf_.resize(end_ + room);
    }
    return buf_.data() + end_;
}

PacketBuffer::Next PacketBuffer::next(std::string_view& packet) {
    size_t have = end_ - begin_;
    if (have < 4)
        return Next::none;
    const auto* p = reinterpret_cast<const uint8_t*>(buf_.data() + begin_);
    uint32_t n = (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
    if (n == 0 || n > kMaxPacket)
        return Next::too_large;
    if (have - 4 < n)
        return Next::none;
    packet = std::string_view(buf_.data() + begin_ + 4, n);
    begin_ += 4 + n;
    return Next::packet;
}

} // namespace orv::sftp
