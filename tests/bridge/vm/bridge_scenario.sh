# Runs inside the SocketCAN test VM: orvane-bridge on vcan0 against
# orvane-gateway-sim with its bus on vcan1.
bridge_vm_test --gtest_color=no
