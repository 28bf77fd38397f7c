// Process-wide set-up of the third-party libraries the library shares with its
// host, done so that their global state outlives every worker thread.
//
// The library's queue threads are never joined: a host may return from main
// while one of them is computing a digest or sending a request. exit() then
// runs the atexit handlers while those threads go on. OpenSSL registers one by
// default (OPENSSL_cleanup), which frees its name tables and locks under the
// running threads' feet. initialize() makes the first initialisation of OpenSSL
// in the process the one that registers no exit handler; every later one
// (libcurl's included) then finds it done and registers none either. The memory
// OpenSSL keeps is returned to the system by the process's end, as with any
// other never-destroyed singleton.
//
// It runs when the library is loaded, and again (at no cost) before each use a
// host's own static initialisation could reach first. Thread-safe, never throws.
#pragma once

namespace zub {

class ProcessLibraries {
public:
    /// Initialises OpenSSL without an exit handler, once per process. Returns
    /// false when OpenSSL's initialisation failed (logged once).
    static bool initialize();
};

}  // namespace zub
