#include "tools/objects.h"

#include <cerrno>
#include <cstdlib>

#include <unistd.h>

std::string why_no_store()
{
    const char *named = getenv("OVANI_STORE");
    const std::string file = named == nullptr || named[0] == '\0' ? "/var/lib/ovani/store.db" : named;
    if (access(file.c_str(), R_OK) == 0) {
        return "";
    }
    return (errno == EACCES ? "no right to read " : "no store at ") + file;
}
