/* The application interface header compiles as C, and a C program links
 * against the shared library and calls it. */
#include "OrvaneDllCan.h"

#include <stdio.h>
#include <string.h>

int main(void)
{
    char acText[64];
    const int nWritten = CANErrorMessage(CAN_ERROR_INVALID_HANDLE, acText, (int)sizeof(acText));
    if (nWritten != (int)strlen("Device handle is invalid") + 1 || strcmp(acText, "Device handle is invalid") != 0)
    {
        printf("CANErrorMessage: %d \"%s\"\n", nWritten, acText);
        return 1;
    }
    if (CANWrite(12345, 0x123, "", 0, 0) != CAN_ERROR_INVALID_HANDLE)
    {
        printf("CANWrite on an unknown handle did not give 0x900000\n");
        return 1;
    }
    return 0;
}
