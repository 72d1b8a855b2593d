// The simulated daemon: listens on a Unix-domain path and serves any number of clients from one
// inventory, which changes as time passes, on an event loop of its own.
//
// Threads    start, stop: the owner's. Everything else happens on the loop's I/O thread, which
//            nothing here blocks.
// Ownership  the daemon owns its loop and the socket file; each client's connection owns itself.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "kqueue/HXKQueue.h"
#include "sim/behaviour.h"
#include "sim/inventory.h"

class Daemon {
    struct Private {
        explicit Private() = default;
    };

public:
    // Listens when it returns. Null on failure; error then says why. It fails rather than take
    // the path from a daemon that answers there, or from a file that is no socket; a socket file
    // that a daemon left behind is replaced. Everybody may connect.
    [[nodiscard]] static std::unique_ptr<Daemon> start(const std::string& path, Inventory inventory,
                                                       const Behaviour& behaviour,
                                                       std::string& error);

    Daemon(Private /*only start makes one*/, std::string socketPath, Inventory initialInventory,
           const Behaviour& behaviour);
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon();  // stops a daemon that was not stopped

    // Ends all connections and removes the socket file, unless another one has taken its place.
    // Takes about a second: the loop does.
    void stop();

private:
    [[nodiscard]] bool listen(std::string& error);
    [[nodiscard]] bool startDeviceTraffic() noexcept;
    [[nodiscard]] bool isSocketFileOurs() const;

    std::string path;
    const Behaviour behaviour;
    std::shared_ptr<Inventory> inventory;
    std::shared_ptr<HXKQueue> loop;  // null: never made, or stopped
    dev_t socketDevice = 0;
    ino_t socketInode = 0;
};
