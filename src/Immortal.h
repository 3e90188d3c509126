#pragma once

#include <utility>

namespace zor {

/// Room for an object that is made like any other and never destroyed, because threads may use it
/// until the process is gone: those that still run while static objects are destroyed.
///
/// With static storage the object is made by the initialisers of its source, or on the first use of
/// the function that it stands in; its address is a constant, good for a reference before that.
template <typename T>
union Immortal {
    template <typename... Arguments>
    explicit Immortal(Arguments&&... arguments) : object(std::forward<Arguments>(arguments)...)
    {}
    ~Immortal() {}

    Immortal(const Immortal&) = delete;
    Immortal& operator=(const Immortal&) = delete;

    T object;
};

} // namespace zor
