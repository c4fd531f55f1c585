// A worker that is joined in stepped time: time passes meanwhile, so that its sleeps end.
#pragma once

#include <functional>

namespace Joining
{

// How to tell that the worker has ended, for all that waits for it; without one there is none.
void SetWorkerEnded(const std::function<bool()>& bEnded);
void NoWorker();

// For how long, in virtual seconds, whoever joined since the last call was kept.
double TakeSeconds();

} // namespace Joining
