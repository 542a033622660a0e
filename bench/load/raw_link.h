#pragma once
// A request and answer link on a plain socket, for the framings libmodbus does not speak: RTU
// frames (address, PDU, CRC) on a TCP stream, or MBAP frames in UDP datagrams. One request at a
// time; an answer is a whole frame of the request's unit (and, over UDP, its transaction id),
// anything else is waited past until the time-out.
#include <cstdint>
#include <string>
#include <vector>

class CRawLink {
public:
    enum class framing_t { rtu_over_tcp, udp };
    enum result_t { ANSWER, EXCEPTION, FAILED, BROKEN };

    CRawLink(framing_t framing, const std::string& host, uint16_t port, uint8_t unit,
             unsigned timeout_ms);
    ~CRawLink();
    CRawLink(const CRawLink&) = delete;
    CRawLink& operator=(const CRawLink&) = delete;

    // On failure the message says why.
    bool connect(std::string& error);
    void close();
    // Sends pdu and takes the answer's PDU into answer. FAILED: no answer in time (the link
    // goes on); BROKEN: the connection is gone.
    result_t transact(const std::vector<uint8_t>& pdu, std::vector<uint8_t>& answer);

private:
    result_t rtu_answer(std::vector<uint8_t>& answer);
    result_t udp_answer(std::vector<uint8_t>& answer);

    framing_t _framing;
    std::string _host;
    uint16_t _port;
    uint8_t _unit;
    unsigned _timeout_ms;
    int _fd = -1;
    uint16_t _tid = 0;
    std::vector<uint8_t> _out;
    std::vector<uint8_t> _in;
};
