#pragma once

// The one header that knows where each platform declares sockaddr_in, inet_addr, htons and their like.
#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#endif
