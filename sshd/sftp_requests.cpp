#include "sshd/sftp_requests.hpp"

namespace orv::sftp {

namespace {

// A READ's reply is built in place: the header, then the file's bytes read straight into the
// reply buffer (the only copy before the channel takes them).
void put_read(Files& files, uint32_t id, std::string_view handle, uint64_t offset, uint32_t len,
              std::string& out) {
    len = std::min(len, kMaxReadChunk);
    size_t start = out.size();
    out.resize(start + 13 + len);
    size_t got = 0;
    Status status = files.read(handle, offset, len, out.data() + start + 13, got);
    if (status != kOk) {
        out.resize(start);
        put_status(out, id, status);
        return;
    }
    out.resize(start + 13 + got);
    std::string header;
    Writer w(header);
    w.u32(static_cast<uint32_t>(9 + got));
    w.u8(kDataReply);
    w.u32(id);
    w.u32(static_cast<uint32_t>(got));
    out.replace(start, 13, header);
}

} // namespace

bool Session::handle(std::string_view packet, std::string& out) {
    Reader r(packet);
    uint8_t type = r.u8();
    if (type == kInit) {
        r.u32(); // the client's version: we answer with ours, which every client speaks
        Writer w(out);
        w.begin(kVersion);
        w.u32(kVersion3);
        // Announcing the limits lets clients move up to a whole read chunk per request
        // instead of their cautious default.
        w.str(kLimitsExtension);
        w.str("1");
        w.finish();
        started_ = true;
        return true;
    }
    if (!started_ || type == kVersion || (type >= kStatusReply && type < kExtended) ||
        type == kExtendedReply)
        return false;
    uint32_t id = r.u32();
    if (!r.ok())
        return false;

    Status status = kOk;
    switch (type) {
    case kOpen: {
        std::string_view path = r.str();
        uint32_t flags = r.u32();
        r.attrs(); // permissions of a new file are the directory's, as for other uploads
        if (!r.ok())
            break;
        std::string handle;
        status = files_.open(path, flags, handle);
        if (status == kOk) {
            put_handle(out, id, handle);
            return true;
        }
        break;
    }
    case kClose: {
        std::string_view handle = r.str();
        if (r.ok())
            status = files_.close(handle);
        break;
    }
    case kRead: {
        std::string_view handle = r.str();
        uint64_t offset = r.u64();
        uint32_t len = r.u32();
        if (!r.ok())
            break;
        put_read(files_, id, handle, offset, len, out);
        return true;
    }
    case kWrite: {
        std::string_view handle = r.str();
        uint64_t offset = r.u64();
        std::string_view data = r.str();
        if (r.ok())
            status = files_.write(handle, offset, data);
        break;
    }
    case kLstat:
    case kStat:
    case kFstat: {
        std::string_view name = r.str();
        if (!r.ok())
            break;
        Attrs attrs;
        status = type == kFstat ? files_.fstat(name, attrs) : files_.stat(name, attrs);
        if (status == kOk) {
            put_attrs(out, id, attrs);
            return true;
        }
        break;
    }
    case kSetstat:
    case kFsetstat: {
        std::string_view name = r.str();
        Attrs attrs = r.attrs();
        if (r.ok())
            status = type == kFsetstat ? files_.fsetstat(name, attrs) : files_.setstat(name, attrs);
        break;
    }
    case kOpendir: {
        std::string_view path = r.str();
        if (!r.ok())
            break;
        std::string handle;
        status = files_.opendir(path, handle);
        if (status == kOk) {
            put_handle(out, id, handle);
            return true;
        }
        break;
    }
    case kReaddir: {
        std::string_view handle = r.str();
        if (!r.ok())
            break;
        std::vector<NameEntry> names;
        status = files_.readdir(handle, names);
        if (status == kOk) {
            put_names(out, id, names);
            return true;
        }
        break;
    }
    case kRemove: {
        std::string_view path = r.str();
        if (r.ok())
            status = files_.remove(path);
        break;
    }
    case kMkdir: {
        std::string_view path = r.str();
        r.attrs();
        if (r.ok())
            status = files_.mkdir(path);
        break;
    }
    case kRmdir: {
        std::string_view path = r.str();
        if (r.ok())
            status = files_.rmdir(path);
        break;
    }
    case kRealpath: {
        std::string_view path = r.str();
        if (!r.ok())
            break;
        std::string real;
        status = files_.realpath(path, real);
        if (status == kOk) {
            put_names(out, id, {{real, real, Attrs{}}});
            return true;
        }
        break;
    }
    case kRename: {
        std::string_view from = r.str();
        std::string_view to = r.str();
        if (r.ok())
            status = files_.rename(from, to);
        break;
    }
    case kExtended: {
        std::string_view name = r.str();
        if (r.ok() && name == kLimitsExtension) {
            Writer w(out);
            w.begin(kExtendedReply);
            w.u32(id);
            w.u64(kMaxPacket);
            w.u64(kMaxReadChunk);
            w.u64(kMaxReadChunk); // the most one write may carry
            w.u64(kMaxHandles);
            w.finish();
            return true;
        }
        status = kOpUnsupported;
        break;
    }
    default:
        // Links (the tree has none).
        status = kOpUnsupported;
        break;
    }
    if (!r.ok())
        status = kBadMessage;
    put_status(out, id, status);
    return true;
}

} // namespace orv::sftp
