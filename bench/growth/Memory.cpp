#include <algorithm>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "Growth.h"
#include "Task.h"

namespace {

struct Node
{
    Node* next = nullptr;
    char rest[56] = {}; // a tree's node, or a list's and what else is allocated beside it
};

using Nodes = std::vector<std::unique_ptr<Node>>;

/// Has every node say where the next one is.
void Link(const Nodes& nodes, const std::vector<std::size_t>& order)
{
    for (std::size_t i = 0; i < order.size(); ++i) {
        nodes[order[i]]->next = nodes[order[(i + 1) % order.size()]].get();
    }
}

void Walk(const Node* at, long steps)
{
    for (long i = 0; i < steps; ++i) {
        at = at->next;
        asm volatile("" : "+r"(at));
    }
}

/// Uses the caches and the address translation for something else.
void Forget()
{
    static std::vector<char> other(std::size_t{16} << 20);
    for (std::size_t i = 0; i < other.size(); i += 64) {
        ++other[i];
    }
}

} // namespace

void growth::MeasureMemory(long size, bool list)
{
    const auto count = static_cast<std::size_t>(size);
    std::vector<std::unique_ptr<Node>> nodes;
    std::vector<std::unique_ptr<char[]>> between;
    for (std::size_t i = 0; i < count; ++i) {
        nodes.push_back(std::make_unique<Node>());
        if (list) {
            between.emplace_back(new char[sizeof(TCTask)]); // not touched
        }
    }
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), 0);
    if (!list) {
        std::shuffle(order.begin(), order.end(), std::mt19937(1));
    }
    Link(nodes, order);
    const long walks = std::max<long>(20, list ? 0 : 1000000 / size);
    Times times;
    for (long i = 0; i < walks; ++i) {
        if (list) {
            Forget();
        }
        const Stopwatch watch;
        Walk(nodes.front().get(), size);
        times.Add(watch, size);
    }
    times.Print(list ? "memory_list" : "memory_tree", size);
}
