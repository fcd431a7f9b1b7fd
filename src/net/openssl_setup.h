#pragma once
// How OpenSSL is begun here; everything that uses it calls this first.

namespace zr {

/// Initialises OpenSSL without its own clean-up at exit, which would pull its tables away from
/// under the threads of a host that leaves without stopping its server. OpenSSL's first
/// initialisation decides: a host that has done its own keeps what it chose. Calling it again does
/// nothing. Threads: any.
void InitialiseOpenSsl();

}  // namespace zr
