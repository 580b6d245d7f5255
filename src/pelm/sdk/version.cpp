#include <pelm/version.hpp>

namespace pelm {

#define PELM_STRINGIFY(x) #x
#define PELM_VERSION_TEXT(major, minor, patch) \
    PELM_STRINGIFY(major) "." PELM_STRINGIFY(minor) "." PELM_STRINGIFY(patch)

const char* version() {
    return PELM_VERSION_TEXT(PELM_VERSION_MAJOR, PELM_VERSION_MINOR, PELM_VERSION_PATCH);
}

}  // namespace pelm
