#pragma once
// Starting the server in the background without lying about the outcome.
//
// The constructor detaches a daemon (fork, setsid, fork, "/" as its folder, umask 022, stdin
// and stdout on /dev/null) and returns in the daemon only. The starting process stays
// behind: it copies everything the daemon writes to stderr to its own stderr until the
// daemon reports, then exits 0 after naming the daemon's process id: once the daemon is
// ready (ready()) or waits for the device's UPS handler (waiting(), the configuration is then
// read later and its messages go to syslog only). A daemon that ends before reporting makes
// the starting process exit 1, after the daemon's own error lines. After reporting, the
// daemon's stderr points at /dev/null.
//
// Call before any thread exists: it forks.

class CDaemonLaunch {
public:
    // Throws CError "Couldn't daemonize process" (in the calling process, nothing forked)
    // when a pipe or the first fork fails.
    CDaemonLaunch();
    // Without a report the daemon has failed: the starting process sees the pipes close.
    ~CDaemonLaunch();
    CDaemonLaunch(const CDaemonLaunch&) = delete;
    CDaemonLaunch& operator=(const CDaemonLaunch&) = delete;

    // Start-up is complete: the configuration is read and the ports are bound.
    void ready() { report('R'); }
    // The daemon waits for the UPS handler; the starting process need not wait with it.
    void waiting() { report('U'); }

private:
    // Status byte and process id to the starting process, once; stderr then goes to /dev/null.
    void report(char status);

    int _status_fd = -1;
};
