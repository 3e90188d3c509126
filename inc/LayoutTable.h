#pragma once

#include <cstdint>

#include "ZorExport.h"

/// @file
/// How a tool finds its way in the runtime's objects without debug information.
///
/// The library exports one object under the name of LAYOUT_SYMBOL: a LayoutHead, and where that
/// says so, tables of LayoutObject and of LayoutEntry. It is constant and complete when the library
/// is loaded. In a process, and in a core, it is read from memory; in the file of the library,
/// stripped or not, it is found through the dynamic symbols, with the addresses of its objects in
/// the relocations. Nothing in the process reads it.
///
/// Names are those of the sources: "TCQueue" is a class, "TCQueue.m_count" a member of it, and
/// "TCTask:TCQueue" the part of a task that is a queue. New ones may be added and the tables moved
/// within LAYOUT_FORMAT. A tool looks names up, passes over those that it does not know, and does
/// without what it does not find.
///
/// Containers are those of libstdc++, whose layout its ABI fixes. Of these there are:
///
/// | name                | what is there                                                     |
/// |---------------------|-------------------------------------------------------------------|
/// | std::vector.begin   | where the first element is                                        |
/// | std::vector.end     | where the last one ends                                           |
/// | std::list.next      | the first node; a node's next; the list itself follows the last   |
/// | std::list.size      | how many nodes there are                                          |
/// | std::list.value     | from a node's begin: what it holds                                |
/// | std::set.leftmost   | the first node; the set's std::set.header if there is none        |
/// | std::set.header     | where the node is that stands for the end                         |
/// | std::set.size       | how many nodes there are                                          |
/// | std::set.left       | from a node's begin: the subtree of what comes before it, or null |
/// | std::set.right      | of what comes behind it                                           |
/// | std::set.parent     | the node above; in the header, the topmost or null                |
/// | std::set.value      | from a node's begin: what it holds; of a map, the key comes first |

namespace zor {

/// The dynamic symbol of the table.
constexpr char LAYOUT_SYMBOL[] = "zor_core_layout";

/// What LayoutHead begins with, its end filled with zeros.
constexpr char LAYOUT_MAGIC[16] = "zor-core-layout";

/// How the tables are written; raised when a tool that knows the present way would misread them.
constexpr std::uint32_t LAYOUT_FORMAT = 1;

/// What an entry is about, and how the bytes there are to be read.
enum class LayoutKind : std::uint32_t
{
    CLASS = 0,    ///< a class: its size; the offset is 0
    BASE = 1,     ///< where in a class one of its bases is
    UNSIGNED = 2, ///< a number
    SIGNED = 3,   ///< a number that may be negative
    BOOL = 4,     ///< 0 or 1
    POINTER = 5,  ///< an address
    TEXT = 6,     ///< characters; it ends with the first that is 0, or with its size
    RECORD = 7,   ///< anything else: an object of a class, room for objects
};

/// The beginning of the table.
struct LayoutHead
{
    char magic[16];            ///< LAYOUT_MAGIC
    std::uint32_t format;      ///< LAYOUT_FORMAT
    std::uint32_t size;        ///< of the whole table, in bytes
    char version[16];          ///< the library's, such as "1.0.0"
    std::uint32_t objectsAt;   ///< from the table's begin to the first LayoutObject, in bytes
    std::uint32_t objectSize;  ///< from one to the next
    std::uint32_t objectCount; ///< how many there are
    std::uint32_t entriesAt;   ///< the same of LayoutEntry
    std::uint32_t entrySize;   ///< from one to the next
    std::uint32_t entryCount;  ///< how many there are
};

/// An object of the process of which there is one.
struct LayoutObject
{
    char name[48];       ///< of the object
    const void* address; ///< where it is; in a file, what has been relocated by nobody
};

/// A class, a base or a member.
struct LayoutEntry
{
    char name[48];        ///< of it, after that of the class that it is in
    std::uint32_t offset; ///< from the begin of that class, in bytes
    std::uint32_t size;   ///< in bytes
    LayoutKind kind;      ///< how to read what is there
};

} // namespace zor
