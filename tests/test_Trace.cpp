// The trace mask is read once while the library loads, so each case runs in a child process
// started with its own properties file.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <korvalite/Korv_Trace.h>
#include <korvalite/SystemCall.h>
#include <sys/eventfd.h>

#include "support/KorvTest.h"

namespace {

namespace System = NSCam::NSKorvalite::System;

// The child prints the mask through both exported symbols, then the sections of EventFD and Close
// (bit 0) made with every atrace tag on.
TEST(TraceMaskChild, DISABLED_Print) {
    printf("mask=%#llx variable=%#llx sections=",
           static_cast<unsigned long long>(get_korvalite_enabled_tracebits()),
           static_cast<unsigned long long>(korvalite_enabled_tracebits));
    korvtest::TraceCapture trace(~UINT64_C(0));
    int fd = -1;
    fd = System::EventFD(0, EFD_CLOEXEC, reinterpret_cast<unsigned long>(&fd));
    System::Close(fd, reinterpret_cast<unsigned long>(&fd));
    for (auto& event : trace.events()) printf("%s,", event.c_str());
    printf("\n");
}

// The info line goes to both routes: liblog's "<tag> I <date> <pid> <tid> <text>" and the default
// ULog sink's "ULOG <module> <level> <tag>: <text>", both on the child's stderr.
TEST(TraceMask, ReadOnceAtLoadAndAnnouncedAtInfoLevel) {
    // The property's value (null: unset), the details level, the mask, whether bit 0 is on. Bits
    // 32, 36 and 37 gate DQueueEvent and the observer traces.
    for (auto const& [value, details, mask, traced] :
         {std::tuple<char const*, std::string, std::string, bool>{nullptr, "3", "0x10001131", true},
          {"lots", "2", "0x10001131", true},
          {"0x3100000000", "3", "0x3100000000", false},
          {"0", "2", "0", false}}) {
        std::map<std::string, std::string> properties = {
                {"debug.qrvcam.ulog.detailslevel", details}, {"debug.qrvcam.ulog.mode", "3"}};
        if (value != nullptr) properties["persist.vendor.camera.korvalite.tracebits"] = value;
        auto child = korvtest::runSelfChild("TraceMaskChild.DISABLED_Print", properties);
        std::string const sections = traced ? "B|EventFD,E,B|Close,E," : "";
        EXPECT_NE(child.out.find("mask=" + mask + " variable=" + mask + " sections=" + sections +
                                 "\n"),
                  std::string::npos)
                << child.out;
        std::string const text =
                "[getEnabledTracebitsFromSysprop] "
                "persist.vendor.camera.korvalite.tracebits=" +
                mask + " default=0x10001131\n";
        bool const shown = details == "3";
        size_t lines = 0;
        for (size_t at = child.err.find(text); at != std::string::npos;
             at = child.err.find(text, at + 1))
            ++lines;
        EXPECT_EQ(lines, shown ? 2u : 0u) << child.err;
        EXPECT_EQ(child.err.find("korvalite-Trace I ") != std::string::npos &&
                          child.err.find("ULOG 8002001 3 korvalite-Trace: " + text) !=
                                  std::string::npos,
                  shown)
                << child.err;
    }
}

}  // namespace
