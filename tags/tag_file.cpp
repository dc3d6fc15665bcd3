#include "tags/tag_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plc {

namespace {

// A tag list holds at most 0x40000 plain and 512 x 255 indexed lines of at most
// 255 bytes (about 100 MB); anything much larger is not a tag list, and the cap
// makes sure an endless file under the list's name cannot keep a build going.
constexpr uint64_t kMaxFileBytes = 256ull << 20;

FileStamp stamp_from(const struct stat &st) {
    FileStamp stamp;
    stamp.device = static_cast<uint64_t>(st.st_dev);
    stamp.inode = static_cast<uint64_t>(st.st_ino);
    stamp.size = static_cast<int64_t>(st.st_size);
    stamp.modified_s = static_cast<int64_t>(st.st_mtim.tv_sec);
    stamp.modified_ns = static_cast<int64_t>(st.st_mtim.tv_nsec);
    stamp.changed_s = static_cast<int64_t>(st.st_ctim.tv_sec);
    stamp.changed_ns = static_cast<int64_t>(st.st_ctim.tv_nsec);
    return stamp;
}

} // namespace

bool FileStamp::operator==(const FileStamp &other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           modified_s == other.modified_s && modified_ns == other.modified_ns &&
           changed_s == other.changed_s && changed_ns == other.changed_ns;
}

bool stamp_of(const char *path, FileStamp &stamp) {
    struct stat st {};
    if (path == nullptr || ::stat(path, &st) != 0) {
        return false;
    }
    stamp = stamp_from(st);
    return true;
}

TagListFile::~TagListFile() { close(); }

TagListFile::Opened TagListFile::open(const char *path) {
    close();
    if (path == nullptr) {
        return Opened::CannotOpen;
    }
    // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
    // It changes nothing for the reads of a regular file.
    fd_ = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) {
        return Opened::CannotOpen;
    }
    struct stat st {};
    if (::fstat(fd_, &st) != 0) {
        close();
        return Opened::CannotOpen;
    }
    stamp_ = stamp_from(st);
    if (!S_ISREG(st.st_mode)) {
        close();
        return Opened::NotRegular;
    }
    return Opened::Yes;
}

bool TagListFile::rewind() { return fd_ >= 0 && ::lseek(fd_, 0, SEEK_SET) == 0; }

bool TagListFile::close() {
    if (fd_ < 0) {
        return true;
    }
    // The descriptor is gone whatever close reports; retrying could close
    // another thread's new descriptor.
    const int result = ::close(fd_);
    fd_ = -1;
    return result == 0;
}

bool LineReader::next(Line &line) {
    line.kept = 0;
    line.length = 0;
    line.complete = false;
    line.has_nul = false;
    for (;;) {
        if (pos_ == len_ && !refill()) {
            return line.length > 0;
        }
        const char *start = block_.data() + pos_;
        const size_t available = len_ - pos_;
        const void *newline = std::memchr(start, '\n', available);
        const size_t take =
            newline != nullptr ? static_cast<size_t>(static_cast<const char *>(newline) - start) + 1
                               : available;
        const size_t copy = std::min(take, kMaxLineLength - line.kept);
        std::memcpy(line.text.data() + line.kept, start, copy);
        line.kept += copy;
        line.length += take;
        line.has_nul = line.has_nul || std::memchr(start, '\0', take) != nullptr;
        pos_ += take;
        if (newline != nullptr) {
            line.complete = true;
            return true;
        }
    }
}

bool LineReader::refill() {
    if (eof_) {
        return false;
    }
    ssize_t n = 0;
    do {
        n = ::read(fd_, block_.data(), block_.size());
    } while (n < 0 && errno == EINTR);
    if (n <= 0) {
        eof_ = true;
        error_ = n < 0;
        return false;
    }
    total_ += static_cast<uint64_t>(n);
    if (total_ > kMaxFileBytes) {
        eof_ = true;
        too_large_ = true;
        return false;
    }
    pos_ = 0;
    len_ = static_cast<size_t>(n);
    return true;
}

} // namespace plc
