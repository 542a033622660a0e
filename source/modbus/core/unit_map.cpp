#include "modbus/core/unit_map.h"

namespace {

bool negates(const CParamDiscreteMapping& m) {
    return m.negate();
}
bool negates(const CParamRegisterMapping&) {
    return false;
}

template <class M>
CResolvedIndex<M> resolve(const tk_string& device,
                          const typename CIntervalIndex<M>::iterrange_t& all,
                          toolkit::CLeafTable& table) {
    typename CIntervalIndex<CResolvedMapping<M>>::items_t items;
    for (auto it = all.first; it != all.second; ++it) {
        const M* m = it->second;
        const tk_string param = device + "/" + m->param_path();
        std::unique_ptr<CResolvedMapping<M>> r(
            new CResolvedMapping<M>{it->first, m, m->id(), table.add(device + "/" + m->path()),
                                    table.add(param + "/Writable"), table.add(param + "/Units"),
                                    CModbusParamDynamicConfig(), negates(*m)});
        items.emplace_back(it->first, std::move(r));
    }
    // The items come in the file index's order, which the new index keeps (stable sort).
    return CResolvedIndex<M>(CIntervalIndex<CResolvedMapping<M>>(std::move(items)));
}

} // namespace

const char* const CUnitMap::identity_names[ID_COUNT] = {
    "Vendor Name", "Product Code",          "Revision",  "Vendor URL",    "Product Name",
    "Model Name",  "User Application Name", "Server ID", "Run Indicator", "Description"};

CUnitMap::CUnitMap(const tk_string& device_path, const std::vector<const CEdsMapping*>& files,
                   toolkit::CLeafTable& table)
    : _files(files) {
    const CAddressRange all = CAddressRange::all_addrs();
    _registers.reserve(files.size());
    _discretes.reserve(files.size());
    for (const CEdsMapping* file : files) {
        _registers.push_back(
            resolve<CParamRegisterMapping>(device_path, file->get_register_mappings(all), table));
        _discretes.push_back(
            resolve<CParamDiscreteMapping>(device_path, file->get_discrete_mappings(all), table));
    }
    for (const char* name : identity_names)
        _identity.push_back(table.add(device_path + "/Identification/" + name + "/Value"));
}
