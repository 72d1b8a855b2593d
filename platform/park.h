// Parks the calling thread for as long as the process lives. Signals are handled meanwhile.
#pragma once

void parkMainThread();
