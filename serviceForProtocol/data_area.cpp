// The data area store.
#include "serviceForProtocol/data_area.h"

#include "protocol.h"

void clearDataArea() {
    driver.dataArea.clear();
    driver.dataIndex.clear();
}
