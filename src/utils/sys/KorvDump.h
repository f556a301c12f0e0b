// The steps of the state dump and of the dump folder that the two sources share. Not exported:
// clients reach them only through korv_dumpstate and getDumpFilepathAndReserveSpace.
#pragma once

#include <korvalite/Korv_Dumpstate.h>

#include <string>

namespace NSCam {
namespace NSKorvalite {

// Returns the folder named by "persist.vendor.camera.korvalite.dumpfile.folder", else the default
// "/data/vendor/tovrix_dump", made with mode 0770 if need be; empty when none could be made.
// Any thread.
std::string getAndMakeFolderPath();

// Runs the targets of `params` in order on the calling thread.
void korv_dumpstate_internal(korv_dumpstate_params const& params);

// One dump into the log (info level), with the back-trace when flags bit 1 is set.
void korv_dumpstate_to_log(korv_dumpstate_params const& params);

// One dump into a new dump file, with the back-trace when flags bit 0 is set. True when a file
// was opened and written.
bool korv_dumpstate_to_file(korv_dumpstate_params const& params);

// Prints the back-traces of every thread of the process, one line per printLine.
void korv_dump_backtrace_of_process(NSCam::IPrinter* printer);

}  // namespace NSKorvalite
}  // namespace NSCam
