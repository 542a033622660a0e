#pragma once
// Whoever sends a command to a worker and wants the answer implements this. The flag is
// true when the command is delivered because its timer expired.
class CThreadCommand;

class CThreadResponseHandler {
public:
    virtual ~CThreadResponseHandler() = 0;
    virtual void post(CThreadCommand& cmd, bool timed_out) = 0;
};
