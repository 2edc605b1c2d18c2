// The run-time version query: the numbers this library was built with.
#include "morven/common.h"

extern "C" {

MORVEN_API uint32_t wzMorvenVersionNumber(void) { return MORVEN_VERSION_NUMBER; }

MORVEN_API const char *wzMorvenVersionString(void) { return MORVEN_VERSION_STRING; }

}  // extern "C"
