/* The library allocates the connections that it hands out with new[]. This is how a program in C
 * gives one back: a function of C++ behind an interface of C. */
#ifndef FREESOCKET_H
#define FREESOCKET_H

#include "Framework/GCL/CTcpSocket.h"

GCL_C_BEGIN
/* Closes the connection if it is open, frees it and clears the caller's pointer. */
void freeSocket(CTcpSocket** socket);
GCL_C_END

#endif /* FREESOCKET_H */
