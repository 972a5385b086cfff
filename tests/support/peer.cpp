#include "peer.h"

#include <cstring>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zebtest
{

void script_fails(place where, const std::string &why)
{
    ADD_FAILURE_AT(where.file, where.line) << why;
    throw std::runtime_error("the conversation went wrong");
}

std::string shown(std::string_view bytes)
{
    std::string text = "  ";
    for (const char c : bytes) {
        char code[8];
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\r')
            text += "\\r";
        else if (c == '\n')
            text += "\\n\n  ";
        else if (byte < 32 || byte > 126)
            text += (snprintf(code, sizeof(code), "\\x%02x", byte), code);
        else
            text += c;
    }
    return text + "\n";
}

std::string lines(std::initializer_list<std::string_view> lines)
{
    std::string text;
    for (const std::string_view line : lines)
        text.append(line).append("\r\n");
    return text;
}

peer::peer(peer &&other) noexcept : fd(other.fd), got(std::move(other.got))
{
    other.fd = -1;
}

peer &peer::operator=(peer &&other) noexcept
{
    close();
    fd = other.fd;
    got = std::move(other.got);
    other.fd = -1;
    return *this;
}

peer::~peer()
{
    close();
}

peer::arrival peer::more(milliseconds limit)
{
    pollfd watched{fd, POLLIN, 0};
    if (poll(&watched, 1, static_cast<int>(limit.count())) != 1)
        return arrival::NOTHING;
    char buffer[65536];
    const ssize_t count = recv(fd, buffer, sizeof(buffer), 0);
    if (count <= 0)
        return arrival::END;
    got.append(buffer, static_cast<size_t>(count));
    return arrival::SOME;
}

void peer::fail(place where, const std::string &expected, arrival last)
{
    std::string why = "the library should have sent\n" + expected + "it sent\n" + shown(got);
    if (last == arrival::END)
        why += "and ended the connection\n";
    if (last == arrival::NOTHING)
        why += "and nothing more in time\n";
    script_fails(where, why);
}

void peer::expect(std::string_view bytes, place where)
{
    arrival last = arrival::SOME;
    while (last == arrival::SOME && got.size() < bytes.size() && bytes.substr(0, got.size()) == got)
        last = more(stretched(patience));
    if (std::string_view(got).substr(0, bytes.size()) != bytes)
        fail(where, shown(bytes), last);
    got.erase(0, bytes.size());
}

void peer::expect_lines(std::initializer_list<std::string_view> expected, place where)
{
    expect(lines(expected), where);
}

std::string peer::read_line(place where)
{
    arrival last = arrival::SOME;
    while (last == arrival::SOME && got.find("\r\n") == std::string::npos)
        last = more(stretched(patience));
    const size_t end = got.find("\r\n");
    if (end == std::string::npos)
        fail(where, "  (a line)\n", last);
    const std::string line = got.substr(0, end);
    got.erase(0, end + 2);
    return line;
}

std::string peer::read_head(place where)
{
    std::string head;
    std::string line;
    do {
        line = read_line(where);
        head += line + "\r\n";
    } while (!line.empty());
    return head;
}

std::string peer::read_bytes(size_t count, place where)
{
    arrival last = arrival::SOME;
    while (last == arrival::SOME && got.size() < count)
        last = more(stretched(patience));
    if (got.size() < count)
        fail(where, "  (" + std::to_string(count) + " bytes)\n", last);
    const std::string bytes = got.substr(0, count);
    got.erase(0, count);
    return bytes;
}

void peer::expect_close(place where)
{
    const arrival last = got.empty() ? more(stretched(patience)) : arrival::SOME;
    if (last != arrival::END)
        fail(where, "  (nothing, and ended the connection)\n", last);
}

void peer::expect_end(place where)
{
    arrival last = arrival::SOME;
    while (last == arrival::SOME) {
        got.clear();
        last = more(stretched(patience));
    }
    if (last != arrival::END)
        fail(where, "  (the end of the connection)\n", last);
}

void peer::expect_silence(milliseconds duration, place where)
{
    const arrival last = got.empty() ? more(duration) : arrival::SOME;
    if (last != arrival::NOTHING)
        fail(where, "  (nothing)\n", last);
}

void peer::send(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0)
            return; /* the library has ended the connection: what it does next shows */
        bytes.remove_prefix(static_cast<size_t>(count));
    }
}

void peer::send_lines(std::initializer_list<std::string_view> sent)
{
    send(lines(sent));
}

void peer::send_split(std::string_view bytes, size_t at, place where)
{
    send(bytes.substr(0, at));
    await_consumed(where);
    send(bytes.substr(at));
}

void peer::send_bytewise(std::string_view bytes, place where)
{
    for (size_t i = 0; i < bytes.size(); i++) {
        send(bytes.substr(i, 1));
        await_consumed(where);
    }
}

void peer::await_consumed(place where)
{
    const int end = other_end();
    if (end == -1)
        script_fails(where, "the library's end of the connection is not in this process");
    const bool consumed = eventually([&] {
        int waiting = 0;
        int underway = 0;
        return ioctl(fd, TIOCOUTQ, &underway) == 0 && underway == 0 && ioctl(end, FIONREAD, &waiting) == 0 &&
               waiting == 0;
    });
    if (!consumed)
        script_fails(where, "the library does not read what it was sent");
}

static bool same_address(const sockaddr_storage &a, const sockaddr_storage &b)
{
    if (a.ss_family != b.ss_family)
        return false;
    if (a.ss_family == AF_INET6) {
        const auto &x = reinterpret_cast<const sockaddr_in6 &>(a);
        const auto &y = reinterpret_cast<const sockaddr_in6 &>(b);
        return x.sin6_port == y.sin6_port && memcmp(&x.sin6_addr, &y.sin6_addr, sizeof(x.sin6_addr)) == 0;
    }
    const auto &x = reinterpret_cast<const sockaddr_in &>(a);
    const auto &y = reinterpret_cast<const sockaddr_in &>(b);
    return x.sin_port == y.sin_port && x.sin_addr.s_addr == y.sin_addr.s_addr;
}

static bool addresses(int socket, sockaddr_storage *here, sockaddr_storage *there)
{
    socklen_t herelength = sizeof(*here);
    socklen_t therelength = sizeof(*there);
    return getsockname(socket, reinterpret_cast<sockaddr *>(here), &herelength) == 0 &&
           getpeername(socket, reinterpret_cast<sockaddr *>(there), &therelength) == 0;
}

int peer::other_end() const
{
    sockaddr_storage here{};
    sockaddr_storage there{};
    if (!addresses(fd, &here, &there))
        return -1;
    for (int candidate = 0; candidate < 1024; candidate++) {
        sockaddr_storage its{};
        sockaddr_storage others{};
        if (candidate != fd && addresses(candidate, &its, &others) && same_address(its, there) &&
            same_address(others, here))
            return candidate;
    }
    return -1;
}

int peer::unsent_by_library() const
{
    int count = 0;
    return ioctl(other_end(), TIOCOUTQ, &count) == 0 ? count : 0;
}

void peer::half_close()
{
    ::shutdown(fd, SHUT_WR);
}

void peer::reset()
{
    const struct linger now = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
    close();
}

void peer::close()
{
    if (fd != -1)
        ::close(fd);
    fd = -1;
}

} // namespace zebtest
