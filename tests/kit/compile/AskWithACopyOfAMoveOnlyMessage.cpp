// expected: a message that cannot be copied is sent with std::move
#include "Tuner.h"

struct Gift
{
    std::unique_ptr<int> number;
};

class Taker : public zor::Task<Taker, Gift>
{
 public:
    void On(Gift&& gift);
};

void Use(Taker& taker, Gift& gift)
{
    taker.Ask(gift, 500ms);
}
