#include <Timeouts/version.h>

const char* timeouts_version(void) { return TIMEOUTS_VERSION_STRING; }
