// SPDX-License-Identifier: MIT
// Utilities for processes, sockets, streams and texts.
#pragma once

extern "C" {

/// 1 or more when a process with that id exists, else 0 or less; 0 for ids below 1.
/// Outside a handler a host that is being stopped may end the process in here, the message in hand given back.
int procIsExist(int iPid);
/// Sends a signal to one process. Negative on failure, with `errno` set.
int procSndSig2Proc(int iPid, int iSig);

/// Tests a socket without waiting: 1 readable or at end of stream, 0 nothing to read, negative on error. Callable from
/// a signal handler.
/// Outside a handler a host that is being stopped may end the process in here, as in every operation that can wait.
int sockCanRead(int iSock);
/// Writes the IPv4 address of a host name or dotted address as dotted-decimal text (at most 16 bytes with its NUL).
/// Negative on failure, with `errno` set.
int sockGetHostIp(char* psHost, char* psAddr);
/// Writes the local IPv4 address (dotted-decimal text, at most 16 bytes) and port of a connected socket.
int sockGetLocalAddr(int iSock, char* psAddr, int* piPort);
int sockSetKeepAlive(int iSock);
/// Sets the receive time-out, in seconds; 0 means none.
int sockSetRTimeOut(int iSock, int iTimeOut);
/// Sets the send time-out, in seconds; 0 means none.
int sockSetSTimeOut(int iSock, int iTimeOut);

/// The last component of a path. The result is valid until the next call; the path stays unchanged.
char* strBaseName(char* psPath);
/// Converts a text to upper case in place.
int strToUpper(char* psText);

/// Reads exactly `iLen` bytes: the length on success, 0 when the peer closed first, another value on failure with
/// `errno` set. `*piReadLen` holds the bytes read so far.
int streamReadNByte(void* pBuf, int iLen, int* piReadLen, int iSock);
/// Writes exactly `iLen` bytes: the length on success, another value on failure with `errno` set. Goes on after a
/// signal handler has run, and for as long as the peer takes something: the socket's send time-out is a time without
/// progress. Callable from a signal handler.
int streamWriteNByte(void* pBuf, int iLen, int iSock);
}
