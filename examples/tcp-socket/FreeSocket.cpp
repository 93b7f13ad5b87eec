#include "FreeSocket.h"

// [free]
void freeSocket(CTcpSocket** socket)
{
    CTcpSocket_Destruct(*socket); // does nothing with NULL
    delete[] * socket;
    *socket = nullptr;
}
// [free end]
