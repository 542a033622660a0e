#pragma once
// Redirects the process's stderr into a temporary file for the life of the object.
#include <cstdio>
#include <string>
#include <unistd.h>

class CStderrCapture {
public:
    CStderrCapture() : _file(std::tmpfile()), _saved(::dup(STDERR_FILENO)) {
        std::fflush(stderr);
        ::dup2(::fileno(_file), STDERR_FILENO);
    }
    ~CStderrCapture() {
        restore();
        std::fclose(_file);
    }
    // Everything written so far; stderr goes back to where it was.
    std::string text() {
        restore();
        std::string out;
        std::rewind(_file);
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, _file)) > 0)
            out.append(buf, n);
        return out;
    }

private:
    void restore() {
        if (_saved < 0)
            return;
        std::fflush(stderr);
        ::dup2(_saved, STDERR_FILENO);
        ::close(_saved);
        _saved = -1;
    }
    std::FILE* _file;
    int _saved;
};
