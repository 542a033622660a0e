#pragma once
// Writes a block of mapped leaves in one store transaction per tick, as a device process
// that publishes its measurements does.
#include "toolkit/cds.h"

#include <cstdint>
#include <vector>

class CLiveWriter {
public:
    // Leaves device/R0/Value .. device/R{count-1}/Value.
    CLiveWriter(const tk_string& device, unsigned count);

    // Connects to the store named by CDS_STORE; false with error() when it cannot.
    bool open();
    // Writes value to every leaf in one batch. False when the store failed or refused a
    // leaf; error() then names the store's reason or the first leaf refused.
    bool write(uint16_t value);
    const tk_string& error() const { return _error; }
    // A missing or mistyped leaf will not mend itself, a busy or lost store may.
    bool refused() const { return _refused; }

private:
    toolkit::CCds _cds;
    std::vector<tk_string> _paths;
    std::vector<toolkit::CElement> _values;
    std::vector<kvr_tribool_t> _flags;
    std::vector<api_status_t> _statuses;
    tk_string _error;
    bool _refused = false;
};
