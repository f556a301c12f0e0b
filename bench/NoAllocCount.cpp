// Sanitizer builds: the sanitizers own malloc, so nothing is counted.
#include <stdint.h>

namespace korvbench {

uint64_t threadAllocations() {
    return 0;
}

bool countsAllocations() {
    return false;
}

}  // namespace korvbench
