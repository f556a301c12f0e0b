// A client of the installed package, built with find_package(tovrix_cmt) and with pkg-config;
// each checks that the ownership-checking close() is the one the program gets.

#include <unistd.h>

#include <cstdio>

#include <korvalite/EpollMonitor.h>
#include <korvalite/Korv_Trace.h>
#include <qrvcam/fdsan.h>

int main() {
    auto monitor = NSCam::NSKorvalite::IEpollMonitor::make("client");
    int fd = dup(STDOUT_FILENO);
    qrvcam_fdsan_exchange_tag(fd, 0, 42, 1);
    if (close(fd) != -1) {
        std::fprintf(stderr, "an owned descriptor was closed by a plain close()\n");
        return 1;
    }
    std::printf("%s %#llx\n", monitor->getName().c_str(),
                static_cast<unsigned long long>(get_korvalite_enabled_tracebits()));
    return qrvcam_fdsan_close_with_tag(fd, 42, 1) == 0 ? 0 : 1;
}
