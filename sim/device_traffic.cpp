#include "sim/device_traffic.h"

void DeviceTraffic::happen(Inventory& inventory) {
    const size_t devices = inventory.countConnectedDevices();
    if (devices != 0) inventory.comeOrGo(random() % devices);
}
