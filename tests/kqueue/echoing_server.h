// The block of a server that sends every byte back, and the block of one end of a connection that
// does. It stops its source when the other end has gone.
#pragma once

#include "kqueue/HXKQueue.h"
#include "tests/kqueue/block_tokens.h"

// A token is held for each end that has not been stopped. Both outlive what the blocks are given
// to.
[[nodiscard]] HXKQueueEventBlock echoing(HXKQueue& loop, BlockTokens& tokens);
[[nodiscard]] HXKQueueEventBlock echoingServer(HXKQueue& loop, BlockTokens& tokens);
