// What the guide's functions stand in when they are compiled on their own.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include "kqueue/HXKQueue.h"
#include "kqueue/HXKQueueBipipeClient.h"
#include "kqueue/HXKQueueStreamSocket.h"
#include "kqueue/HXKQueueTimer.h"
#include "kqueue/HXKQueueUnixClient.h"
#include "platform/log.h"
