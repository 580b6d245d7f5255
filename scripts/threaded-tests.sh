#!/usr/bin/env bash
# The ctest name pattern of the tests whose code runs threads of its own: the HTTPS transport and the server
# (every integration test), the settings store, the Linux status sources, the BlueZ feed and the stop-signal
# watch.
suites=(APIClientTest SlowReplyTest PelmSDKTest SessionManagerTest BeaconVisitTest Simulate ContentStore
        FileKeyValueStoreTest LinuxReachability LinuxBluetooth DeviceStatusTest LinuxBeaconVendorTest
        ServerLimits ServerMemory ServerConnections HostileText HostileTextTest FormBody RecordTrace Replay
        HostStopTest RunLoopStopSignal RunLoopStopSignalDeathTest)
(IFS='|'; echo "^(${suites[*]})\\.")
