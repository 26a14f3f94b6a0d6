// A C++ consumer of the installed static client library: it only needs to
// compile and link against the installed headers and libraries.
#include <OrvaneClientCAN.h>
#include <OrvaneErrors.h>

#include <cstdio>

int main()
{
    COrvaneClientCAN oClient(1000);
    std::printf("%s\n", OrvaneErrorMsg(0x900000).c_str());
    return 0;
}
