# Runs inside the VM: the SocketCAN adapter's tests on vcan0/vcan1.
socket_can_vm_test --gtest_color=no
