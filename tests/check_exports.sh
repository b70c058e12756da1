#!/usr/bin/env bash
# The driver's shared library must export exactly the intf_ functions, unmangled, and nothing else.
set -euo pipefail
expected="intf_SetDriverPropertyPage intf_addConditionRead intf_addrMerge intf_checkAddr
intf_checkAddrValidity intf_dealRcvFrame intf_getData intf_getDriverParameter intf_getDriverPropertyPage
intf_getProtocolType intf_getRegDiscription intf_getRegListByType intf_getSendFrame intf_getVersion
intf_initProperty intf_multiCopy intf_setAddrValueChangeCallBack intf_setData intf_setRcpAddress"
actual=$(nm -D --defined-only "$1" | awk '{print $3}' | sort)
if ! diff <(echo $expected | tr ' ' '\n' | sort) <(echo "$actual"); then
    echo "exported symbols differ from the intf_ list (< missing, > extra)"
    exit 1
fi
echo "exports OK: $(echo "$actual" | wc -l) intf_ functions, nothing else"
