#pragma once
// Whoever sends a command to a worker and wants the answer implements this. A requester
// overrides exactly the forms it can receive; the others are programming errors. The flag
// is true when the command is delivered because its timer expired.
class CThreadCommand;
class CThreadCdsGetLeaves;
class CThreadCdsSetLeaves;

class CThreadResponseHandler {
public:
    virtual ~CThreadResponseHandler() = 0;
    virtual void post(CThreadCdsGetLeaves& cmd, bool timed_out);
    virtual void post(CThreadCdsSetLeaves& cmd, bool timed_out);
    virtual void post(CThreadCommand& cmd, bool timed_out);
};
