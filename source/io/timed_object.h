#pragma once
// Something a CIoTimer calls back when it expires.
class CIoTimer;

class CTimedObject {
public:
    virtual ~CTimedObject() = default;
    virtual void timeout(const CIoTimer& timer) = 0;
};
