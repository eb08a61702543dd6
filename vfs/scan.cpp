#include "vfs/scan.hpp"

#include "core/log.hpp"
#include "vfs/tree.hpp"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace orv {

namespace {

constexpr size_t kMaxName = 255;

// Layout of a getdents64 record: inode (8), offset (8), record length (2), type (1), name.
constexpr size_t kDentLengthAt = 16;
constexpr size_t kDentTypeAt = 18;
constexpr size_t kDentNameAt = 19;

// Names with these bytes cannot be told apart from path or fpl.txt syntax.
bool name_fits_tree(std::string_view name) {
    return name.size() <= kMaxName && name.find_first_of("\\:\r\n") == std::string_view::npos;
}

// Control bytes would break the log line apart.
std::string printable(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            c = '?';
    return out;
}

class Scanner {
  public:
    Scanner(Log& log, const NodePtr& top) : log_(log), top_(top) {}

    ScanCounts run(const std::string& host_dir, size_t virtual_prefix) {
        char* real = ::realpath(host_dir.c_str(), nullptr);
        if (!real)
            return counts_;
        scope_ = real;
        std::free(real);
        // Directories are opened by their path relative to the scanned one, so that a tree
        // deeper than the host's path limit (measured from /) is still read whole.
        base_ = host_dir;
        base_fd_ = ::open(host_dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (base_fd_ < 0)
            return counts_;
        virtual_prefix_ = virtual_prefix;
        std::string relative;
        scan_dir(top_, relative, true);
        ::close(base_fd_);
        return counts_;
    }

  private:
    struct SubDir {
        NodePtr node;
        bool via_link;
    };

    void leave_out(const char* reason, const std::string& dir, std::string_view name) {
        log_.logf("**** Left out of the file system (%s) - %s/%s ****", reason,
                  printable(dir).c_str(), printable(name).c_str());
    }

    bool inside_scope(const std::string& path) const {
        char* real = ::realpath(path.c_str(), nullptr);
        if (!real)
            return false;
        std::string_view target(real);
        bool inside = scope_ == "/" || target == scope_ ||
                      (target.size() > scope_.size() && target.starts_with(scope_) &&
                       target[scope_.size()] == '/');
        std::free(real);
        return inside;
    }

    bool is_ancestor(const struct stat& st) const {
        return std::find(ancestors_.begin(), ancestors_.end(),
                         std::make_pair(st.st_dev, st.st_ino)) != ancestors_.end();
    }

    NodePtr make_child(const NodePtr& parent, std::string_view name, char kind, off_t size) {
        const VfsNode& dir = *parent;
        auto node = std::make_shared<VfsNode>();
        node->name.assign(name);
        node->kind = kind;
        node->size = kind == 'd' ? 0 : static_cast<uint32_t>(size);
        node->mount = dir.mount;
        node->creator = dir.creator;
        node->owner = dir.owner;
        node->flags = dir.flags;
        node->group = dir.group;
        node->parent = parent;
        if (kind == 'd')
            ++counts_.directories;
        else
            ++counts_.files;
        return node;
    }

    // Follows a link that stays inside the scanned directory: its target's kind and size.
    // Returns 0 when the link is left out.
    char follow_link(int dir_fd, const std::string& dir_path, const char* name, struct stat& st) {
        if (::fstatat(dir_fd, name, &st, 0) != 0) {
            leave_out("link leads nowhere", dir_path, name);
            return 0;
        }
        if (!inside_scope(dir_path + "/" + name)) {
            leave_out("link leads outside", dir_path, name);
            return 0;
        }
        if (S_ISDIR(st.st_mode)) {
            if (is_ancestor(st)) {
                leave_out("link loops", dir_path, name);
                return 0;
            }
            return 'd';
        }
        if (S_ISREG(st.st_mode))
            return '-';
        leave_out("not a file or directory", dir_path, name);
        return 0;
    }

    // The entries of an open directory as the host yields them ("." and ".." left out).
    // getdents64 straight into one reused buffer: no DIR stream set-up per directory.
    template <typename Fn> void for_each_entry(int fd, Fn&& fn) {
        for (;;) {
            long n = ::syscall(SYS_getdents64, fd, dents_.data(), dents_.size());
            if (n <= 0)
                return;
            for (long off = 0; off < n;) {
                const char* record = dents_.data() + off;
                uint16_t length;
                std::memcpy(&length, record + kDentLengthAt, sizeof length);
                off += length;
                auto type = static_cast<unsigned char>(record[kDentTypeAt]);
                const char* name = record + kDentNameAt;
                if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0)))
                    continue;
                fn(name, type);
            }
        }
    }

    // The host path of a directory given relative to the scanned one, for log lines and the
    // link checks.
    std::string host_path(const std::string& relative) const {
        if (relative.empty())
            return base_;
        return base_.ends_with('/') ? base_ + relative : base_ + "/" + relative;
    }

    void scan_dir(const NodePtr& dir, std::string& relative, bool via_link) {
        int fd = ::openat(base_fd_, relative.empty() ? "." : relative.c_str(),
                          O_RDONLY | O_DIRECTORY | O_CLOEXEC | (via_link ? 0 : O_NOFOLLOW));
        if (fd < 0)
            return; // unreadable: the directory stays empty, as a failed find-first leaves it
        const std::string path = host_path(relative);
        struct stat dir_st;
        if (::fstat(fd, &dir_st) != 0 || is_ancestor(dir_st)) {
            ::close(fd);
            if (!ancestors_.empty())
                leave_out("directory loops", path, "");
            return;
        }
        ancestors_.emplace_back(dir_st.st_dev, dir_st.st_ino);
        std::vector<SubDir> subdirs;
        for_each_entry(fd, [&](const char* name, unsigned char type) {
            std::string_view name_view(name);
            if (!name_fits_tree(name_view)) {
                leave_out("name not usable", path, name_view);
                return;
            }
            // The virtual path (the separator or the mount point, then the path below) must fit.
            size_t below = relative.size() + (relative.empty() ? 0 : 1) + name_view.size();
            if (virtual_prefix_ + 1 + below > kMaxVirtualPath) {
                leave_out("path too long", path, name_view);
                return;
            }
            struct stat st;
            if (type == DT_UNKNOWN || type == DT_REG) {
                if (::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
                    return; // gone since the directory was read
                type = S_ISDIR(st.st_mode)   ? DT_DIR
                       : S_ISREG(st.st_mode) ? DT_REG
                       : S_ISLNK(st.st_mode) ? DT_LNK
                                             : DT_UNKNOWN;
            }
            char kind = 0;
            bool link = false;
            off_t size = 0;
            if (type == DT_DIR) {
                kind = 'd';
            } else if (type == DT_REG) {
                kind = '-';
                size = st.st_size;
            } else if (type == DT_LNK) {
                link = true;
                kind = follow_link(fd, path, name, st);
                size = st.st_size;
            } else {
                leave_out("not a file or directory", path, name_view);
            }
            if (!kind)
                return;
            NodePtr child = make_child(dir, name_view, kind, size);
            if (kind == 'd')
                subdirs.push_back({child, link});
            dir->children.push_back(std::move(child));
        });
        ::close(fd);

        for (const SubDir& sub : subdirs) {
            size_t keep = relative.size();
            if (!relative.empty())
                relative += '/';
            relative += sub.node->name;
            scan_dir(sub.node, relative, sub.via_link);
            relative.resize(keep);
        }
        ancestors_.pop_back();
    }

    Log& log_;
    const NodePtr& top_;
    std::string scope_;
    std::string base_;
    int base_fd_ = -1;
    size_t virtual_prefix_ = 0;
    std::vector<std::pair<dev_t, ino_t>> ancestors_;
    std::vector<char> dents_ = std::vector<char>(32768);
    ScanCounts counts_;
};

} // namespace

ScanCounts scan_into(Log& log, const std::string& host_dir, const NodePtr& dir,
                     size_t virtual_prefix) {
    return Scanner(log, dir).run(host_dir, virtual_prefix);
}

} // namespace orv
