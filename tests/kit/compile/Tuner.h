#pragma once

// The class that the snippets of this folder misuse.

#include "zor/Task.h"

using namespace std::chrono_literals;

struct Tune
{
    int channel;
};

struct Tuned
{
    bool locked;
};

struct Scan
{};

struct Unknown
{};

class Tuner : public zor::Task<Tuner, Tune, Scan>
{
 public:
    Tuned On(const Tune& tune);
    void On(const Scan& scan);
};
