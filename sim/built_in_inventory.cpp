#include "sim/built_in_inventory.h"

namespace {

Server office() {
    return {.id = 1,
            .host = "office.example",
            .port = 33000,
            .devices = {{.id = 1,
                         .name = "Optical Mouse",
                         .vid = 0x046d,
                         .pid = 0xc077,
                         .rev = 0x7200,
                         .port = "1-1",
                         .serial = ""},
                        {.id = 2,
                         .name = "Flash Drive",
                         .vid = 0x0951,
                         .pid = 0x1666,
                         .rev = 0x0110,
                         .port = "1-2",
                         .serial = "60A44C413FAE",
                         .plugged = true,
                         .replug = true},
                        {.id = 3,
                         .name = "Drucker im Büro",
                         .vid = 0x04b8,
                         .pid = 0x0202,
                         .rev = 0x0100,
                         .port = "2-1.4",
                         .serial = "X2P0001"}}};
}

Server workshop() {
    return {.id = 2,
            .host = "192.0.2.17",
            .port = 33001,
            .devices = {{.id = 1,
                         .name = "Serial Adapter",
                         .vid = 0x0403,
                         .pid = 0x6001,
                         .rev = 0x0600,
                         .port = "3-2",
                         .serial = "A9007UX1"},
                        {.id = 10,
                         .name = "顕微鏡カメラ",
                         .vid = 0x1b3f,
                         .pid = 0x2002,
                         .rev = 0x0001,
                         .port = "3-4",
                         .serial = "",
                         .plugged = true,
                         .replug = false}}};
}

Server laboratory() {
    return {.id = 3,
            .host = "2001:db8::3",
            .port = 33000,
            .state = ServerState::Disconnected,
            .devices = {{.id = 7,
                         .name = "Анализатор",
                         .vid = 0x16c0,
                         .pid = 0x05dc,
                         .rev = 0x0205,
                         .port = "1-1",
                         .serial = "Ω-42",
                         .plugged = false,
                         .replug = true}}};
}

Server empty() {
    return {.id = 10, .host = "spare.example", .port = 40000, .devices = {}};
}

}  // namespace

Inventory builtInInventory() {
    return Inventory({office(), workshop(), laboratory(), empty()});
}
