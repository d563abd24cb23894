#pragma once

namespace corvane::vm {

/// A close-on-exec vsock listener at `port`, whatever context id it is called by; -1 with errno.
int listenOnVsock(unsigned port);

/// Accepts one connection, close-on-exec; `flags` as for accept4(2). -1 with errno.
int acceptOn(int listener, int flags = 0);

/// Says what failed, with errno's text, and ends the process with status 1.
[[noreturn]] void fail(const char* what);

}  // namespace corvane::vm
