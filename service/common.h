#pragma once
// Channel I/O helpers shared by both bridges and the node provisioning: thin,
// logged wrappers over IPv4 TCP/UDP sockets, epoll, device files and
// pseudo-terminals, plus hex and case conversions of byte strings.
//
// Each function logs its own failures once and returns a plain integer; the
// return conventions differ from function to function and callers rely on
// them exactly.  Descriptors passed in are never closed here.

#include <sys/uio.h>

#include <cstdint>
#include <string>

namespace Zentrova {
namespace Iot {
namespace TransparentChannel {

// Non-blocking TCP socket; with a non-zero port it is bound to ip:port and
// listening, with port 0 it stays unbound for connect_tcp.  -1 on failure.
int create_tcp(const std::string& ip, uint16_t port);
// 0 when connected or still connecting (the outcome comes through epoll), -1 on error.
int connect_tcp(int32_t fd, const std::string& ip, uint16_t port);
// New non-blocking connected socket, or -1 (silently when nothing is pending).
int accept_tcp(int32_t listen_fd);
// One send: bytes sent, or the negative result of send.
int send_tcp(int32_t fd, const void* buf, int32_t len);
// One recv: bytes read (> 0); 0 for a closed peer and for any error, so the
// caller drops the connection; -1 when nothing is left to read.
int recv_tcp(int32_t fd, void* buf, int32_t len);

// UDP socket bound to ip:port, non-blocking unless `blocking` is 1.  -1 on failure.
int create_udp(const std::string& ip, uint16_t port, int32_t blocking);
// One sendto; its result unchanged.
int send_udp(int32_t fd, const void* buf, int32_t len, const std::string& ip, uint16_t port);
// One recvfrom: bytes read (1 or more), or -1 (an empty datagram included).
int recv_udp(int32_t fd, void* buf, int32_t len);

// Publishes the slave of a new pseudo-terminal as the symbolic link `link`
// (replacing an older link there) and returns the non-blocking master with
// echo off, or -1.
int create_device_file(const std::string& link);

// Edge-triggered registration for in, error, hang-up and (if `writable`) out.  0, or -1.
int epoll_add(int32_t epfd, int32_t fd, bool writable = true);
int epoll_del(int32_t epfd, int32_t fd);
// Changes a registration made by epoll_add to report the writable edge or
// not.  Re-arming reports room that is there already.  0, or -1.
int epoll_mod(int32_t epfd, int32_t fd, bool writable);

// One write of all of `data`: 1 when every byte went out, else 0 (also for an empty string).
int send_file(int32_t fd, const std::string& data);
// One read of at most 1024 bytes into `out` (replaced): 1 when bytes were
// read, else 0 (end of file and nothing-to-read alike).  One thread at a time:
// the read buffer is static.
int recv_file(int32_t fd, std::string& out);
// One write; its result unchanged.
int send_file(int32_t fd, const void* buf, int32_t len);
// One read: bytes read (0 or more); 0 also for an error; -1 when nothing is left to read.
int recv_file(int32_t fd, void* buf, int32_t len);
// One readv into `count` pieces, with the conventions of the buffer form.
int recv_file(int32_t fd, const iovec* iov, int32_t count);

// For descriptors under flow control, where a full buffer is no error: bytes
// taken (0 when the descriptor takes nothing for now), or -1 on an error,
// logged as by send_tcp and send_file.  An interrupted call is repeated, so
// that 0 always means "wait for the writable edge".
int send_tcp_some(int32_t fd, const void* buf, int32_t len);
int send_file_some(int32_t fd, const iovec* iov, int32_t count);

// Appends two lower-case hex digits per byte of `in` to `out`.
void bytes_to_hex(const std::string& in, std::string& out);
// Replaces `out` with the bytes of the digit pairs of `in`; a trailing odd
// digit is dropped and a non-hex character counts as 0.
void hex_to_bytes(const std::string& in, std::string& out);
// 0-15 for a hex digit of either case, 0 for anything else.
int hex_char_value(char ch);

// ASCII-only case conversions; other bytes pass unchanged.
std::string to_lower(const std::string& s);
std::string to_upper(const std::string& s);

}  // namespace TransparentChannel
}  // namespace Iot
}  // namespace Zentrova
