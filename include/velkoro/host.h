/* The interface of libvelkoro to the program that hosts it: a web server inside your process, in
 * three functions. Compile with any C++17 compiler and link with -lvelkoro.
 *
 *   void* server = StartHTTPServer("127.0.0.1", 8443, "www", "cgi-bin", "cert.pem", "key.pem");
 *   while (ServerPort(server) == 0) { ... }   // it listens a moment later
 *   StopHTTPserver(server);
 */
#pragma once

#define VELKORO_EXPORT __attribute__((visibility("default")))

/// Starts one HTTPS server and returns its handle without waiting for it to listen.
///
/// @param address        how the server is called, for example "127.0.0.1". The listening socket
///                       takes connections on every local address.
/// @param port           the TCP port; its absolute value counts, 0 lets the system choose.
/// @param startPath      a directory, kept as an option of the server.
/// @param cgiBinPath     a directory, kept as an option of the server.
/// @param caCertificate  name of a PEM file with the server's certificate.
/// @param privateKey     name of a PEM file with its key, not encrypted.
/// @return the handle, never null; it belongs to the caller until StopHTTPserver().
///
/// Throws an exception derived from std::exception when an argument is null ("options are missing",
/// "keys are missing") or the server cannot be made, for example "(SSL) problem with SSL key pair";
/// nothing is left running then.
///
/// Two failures are no exceptions, and ServerPort() tells them: it stays 0. A port that is taken:
/// the server keeps trying. A key pair that cannot be used, in any but the first server of the
/// process, whose failure is not to take down those that run: the server does not listen, and one
/// line on standard error says so.
///
/// Several servers may run at once. Call it from any thread; in a child process only if the parent
/// had not started a server before the fork, else it throws.
VELKORO_EXPORT void* StartHTTPServer(const char* address, int port, const char* startPath,
                                     const char* cgiBinPath, const char* caCertificate,
                                     const char* privateKey);

/// The port that the server listens on, 0 before it does and for a null handle. Throws nothing.
/// Threads: any, but not during or after StopHTTPserver() of the same handle.
VELKORO_EXPORT int ServerPort(void* server);

/// Stops the server, closes its connections and frees the handle. Answers 0, also for a null
/// handle. Returns when no thread of the server runs any more. Call it once, from a thread of the
/// host's. The library stays loaded until then, whatever dlclose() is told. A child process of the
/// host's has no server: this does nothing there. A host may exit without it, and so may its child;
/// one that has used OpenSSL itself before the first server was started must stop them all, or
/// OpenSSL's clean-up at exit meets threads that still use it.
VELKORO_EXPORT int StopHTTPserver(void* server);
