/* The administration socket: a unix stream socket that only its owner and root can use. Requests and answers
 * are lines. A reader that is slow holds up nobody: its requests wait until its answers are gone, and what is
 * told to followers is left out and counted once too much waits for one. */
#pragma once

#include "admin.h"

#include <functional>
#include <list>
#include <memory>
#include <span>
#include <string>
#include <sys/types.h>
#include <uv.h>

namespace zebd
{

struct admin_socket;

struct admin_connection {
    admin_socket *owner = nullptr;
    uv_pipe_t pipe{};
    uv_write_t write{};
    std::string input;   /* not yet answered; at most one request's length and one read */
    std::string output;  /* not yet handed to the socket */
    std::string writing; /* handed to the socket */
    uint64_t lost = 0;   /* lines left out since the last that was taken */
    bool monitors = false;
    connection_id traced = 0; /* 0: none */
    bool ended = false;       /* it sends nothing more, but may still read */
    bool leaving = false;     /* is closed when everything is written */
    bool closing = false;
};

struct admin_socket {
    uv_loop_t *loop = nullptr;
    report_source source;
    std::function<void()> changed; /* called when somebody begins or ends to follow */
    uint64_t *requests = nullptr;  /* counts them */

    std::string path; /* empty while there is none */
    int fd = -1;
    dev_t device = 0; /* of the socket file, to know it again */
    ino_t inode = 0;
    uv_poll_t poll{};
    uv_timer_t pause{}; /* runs while nobody can be accepted for want of descriptors */
    std::list<std::unique_ptr<admin_connection>> connections;
    char readBuffer[4096]{};
};

/* Listens at PATH. A socket file that nobody listens on is replaced. False with WHY in one line otherwise. */
bool admin_socket_open(admin_socket &admin, const std::string &path, std::string &why);

/* Closes everything and removes the socket file. */
void admin_socket_close(admin_socket &admin);

bool admin_has_monitors(const admin_socket &admin);
bool admin_traces(const admin_socket &admin, connection_id connection);

/* Tells a line to everybody who monitors, or who traces CONNECTION. */
void admin_tell_monitors(admin_socket &admin, const std::string &line);
void admin_tell_tracers(admin_socket &admin, connection_id connection, const std::string &line);

/* The traces of CONNECTION end with LINE. */
void admin_end_traces(admin_socket &admin, connection_id connection, const std::string &line);

} // namespace zebd
