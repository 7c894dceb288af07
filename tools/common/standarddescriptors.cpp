#include "standarddescriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace tools {

void occupyStandardDescriptors()
{
    int descriptor = 0;
    do
        descriptor = ::open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor > STDERR_FILENO)
        ::close(descriptor);
}

} // namespace tools
