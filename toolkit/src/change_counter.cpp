#include "change_counter.h"

#include <endian.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace toolkit {

namespace {

const size_t k_size = sizeof(uint32_t);

static_assert(__atomic_always_lock_free(sizeof(uint32_t), nullptr),
              "the change counter is shared between processes and must be lock-free");

tk_string failure(const tk_string& path, const char* what) {
    return "change counter '" + path + "': " + what + ": " + std::strerror(errno);
}

// Maps the word of the open counter file, sizing it first when it is new.
void* map_word(int fd, const tk_string& path, struct stat& st, tk_string& why) {
    if (::fstat(fd, &st) != 0) {
        why = failure(path, "cannot stat");
        return MAP_FAILED;
    }
    if (!S_ISREG(st.st_mode)) {
        why = "change counter '" + path + "': not a regular file";
        return MAP_FAILED;
    }
    // Extending with zeros, never shrinking: a creator racing with us may have bumped it.
    if (st.st_size < static_cast<off_t>(k_size) && ::ftruncate(fd, k_size) != 0) {
        why = failure(path, "cannot size");
        return MAP_FAILED;
    }
    void* const map = ::mmap(nullptr, k_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED)
        why = failure(path, "cannot map");
    return map;
}

} // namespace

bool CChangeCounter::open(const tk_string& store_path, tk_string& why) {
    close();
    const tk_string path = path_of(store_path);
    struct stat store;
    if (::stat(store_path.c_str(), &store) != 0) {
        why = failure(path, "cannot stat the store");
        return false;
    }
    const mode_t mode = store.st_mode & 0666;
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd >= 0) {
        // The umask may have narrowed the mode, and another user's processes share the store.
        if (::fchmod(fd, mode) != 0 ||
            (::geteuid() == 0 && ::fchown(fd, store.st_uid, store.st_gid) != 0)) {
            why = failure(path, "cannot give it the store's mode and owner");
            ::close(fd);
            ::unlink(path.c_str());
            return false;
        }
    } else if (errno == EEXIST) {
        fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    }
    if (fd < 0) {
        why = failure(path, "cannot open");
        return false;
    }
    struct stat st;
    void* const map = map_word(fd, path, st, why);
    ::close(fd);
    if (map == MAP_FAILED)
        return false;
    _word = static_cast<uint32_t*>(map);
    _path = path;
    _dev = st.st_dev;
    _ino = st.st_ino;
    return true;
}

void CChangeCounter::close() {
    if (_word)
        ::munmap(_word, k_size);
    _word = nullptr;
}

uint32_t CChangeCounter::bump(uint32_t* replaced) {
    uint32_t old = 0, next = 0;
    if (_word) {
        old = __atomic_load_n(_word, __ATOMIC_RELAXED);
        do
            next = htobe32(be32toh(old) + 1);
        while (!__atomic_compare_exchange_n(_word, &old, next, true, __ATOMIC_SEQ_CST,
                                            __ATOMIC_RELAXED));
    }
    if (replaced)
        *replaced = old;
    return next;
}

bool CChangeCounter::current() const {
    struct stat st;
    return _word && ::stat(_path.c_str(), &st) == 0 && st.st_dev == _dev && st.st_ino == _ino &&
           st.st_size >= static_cast<off_t>(k_size);
}

} // namespace toolkit
