#pragma once

#include <cstddef>
#include <cstring>

/// @file
/// Orders of virtual operations and of fields, which other binaries rely on.

namespace zortest {

/// The number of a virtual operation in its class's table, from 0; a destructor takes two.
///
/// A pointer to a virtual member function begins with the offset of its slot, plus one where
/// functions may lie at even addresses only; on ARM, where they may not, what comes behind says
/// that it is virtual.
template <typename Member>
std::size_t SlotOf(Member member)
{
    std::size_t offset = 0;
    static_assert(sizeof(member) >= sizeof(offset));
    std::memcpy(&offset, &member, sizeof(offset));
    return offset / sizeof(void*);
}

/// The field of type Field at @p offset bytes in @p object.
template <typename Field, typename Object>
Field FieldAt(const Object& object, std::size_t offset)
{
    Field field;
    std::memcpy(&field, reinterpret_cast<const unsigned char*>(&object) + offset, sizeof(field));
    return field;
}

} // namespace zortest
