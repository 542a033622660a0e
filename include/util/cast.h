#pragma once
// Down-casts within a class tree where the caller knows the dynamic type: checked by an
// assertion, free of cost once the check has been ruled out as a programming error.
#include <cassert>
#include <memory>

template <class Target, class Source> Target poly_cast(Source* source) {
    assert(dynamic_cast<Target>(source) == source);
    return static_cast<Target>(source);
}

template <class Target, class Source>
std::shared_ptr<Target> poly_cast(const std::shared_ptr<Source>& source) {
    assert(std::dynamic_pointer_cast<Target>(source) == source);
    return std::static_pointer_cast<Target>(source);
}
