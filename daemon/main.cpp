#include <malloc.h>

#include "daemon/start_options.hpp"
#include "daemon/startup.hpp"

int main(int argc, char* argv[]) {
#ifdef M_MMAP_THRESHOLD
    // A listing of many packages builds replies of several hundred KiB. Above this size glibc
    // maps each buffer on its own and unmaps it when freed; left alone, it raises the threshold
    // after the first such buffer and keeps the next ones in the heap, which never shrinks.
    ::mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
    return pkgd::run_daemon(pkgd::parse_start_options(argc, argv));
}
