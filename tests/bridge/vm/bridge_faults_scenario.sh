# Runs inside the SocketCAN test VM: orvane-bridge on vcan0 against gateway
# simulators (bus vcan1) that are killed and restarted, refuse, freeze, close
# or fail. ORVANE_FAULT_CYCLES (default 50) sets the restart cycles;
# scripts/fault-cycles.sh runs 500.
bridge_faults_vm_test --gtest_color=no
