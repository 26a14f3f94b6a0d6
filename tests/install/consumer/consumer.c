/* A program built against an installed Orvane package: it opens two
 * handles on CAN port P of a gateway simulator on 127.0.0.1, writes a frame
 * on one and polls it from the other. Exit status 0 when the frame arrived. */
#include <OrvaneDllCan.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

int main(int argc, char** argv)
{
    int nWriter = -1, nReader = -1, nAvailable = -1, nIdentifier = 0, nFlags = 0, nSeconds = 0, nMicros = 0;
    char acData[72];
    unsigned char nLength = 0;
    const struct timespec oPause = {0, 2000000};
    int i;
    if (argc != 2)
        return 2;
    if (CANOpenDevice(&nWriter, 0, 0, atoi(argv[1]), "127.0.0.1", 5000) != 0 ||
        CANOpenDevice(&nReader, 0, 0, atoi(argv[1]), "127.0.0.1", 5000) != 0 ||
        CANSetMaxSizePerQueue(nReader, 10) != 0)
    {
        printf("cannot open the simulated gateway\n");
        return 1;
    }
    if (CANWrite(nWriter, 0x123, "\x11\x22\x33", 3, 0) != 0)
        return 1;
    for (i = 0; i < 2500 && nAvailable == -1; ++i) /* up to 5 s */
    {
        CANGetMessage(nReader, &nAvailable, &nIdentifier, acData, &nLength, &nFlags, &nSeconds, &nMicros);
        if (nAvailable == -1)
            nanosleep(&oPause, NULL);
    }
    CANCloseDevice(nWriter);
    CANCloseDevice(nReader);
    if (nAvailable == -1 || nIdentifier != 0x123 || nLength != 3 || memcmp(acData, "\x11\x22\x33", 3) != 0)
    {
        printf("frame not received\n");
        return 1;
    }
    printf("frame 0x123 received\n");
    return 0;
}
