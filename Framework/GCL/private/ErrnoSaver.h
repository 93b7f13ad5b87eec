// ErrnoSaver: keeps the calling thread's errno over a scope whose calls may change it.
#ifndef GCL_PRIVATE_ERRNOSAVER_H
#define GCL_PRIVATE_ERRNOSAVER_H

#include <cerrno>

namespace gcl {

class ErrnoSaver {
public:
    ErrnoSaver() : saved(errno) {}
    ~ErrnoSaver() { errno = saved; }
    ErrnoSaver(const ErrnoSaver&) = delete;
    ErrnoSaver& operator=(const ErrnoSaver&) = delete;

private:
    int saved;
};

} // namespace gcl

#endif // GCL_PRIVATE_ERRNOSAVER_H
