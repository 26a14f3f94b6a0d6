# Runs inside the SocketCAN test VM: the gateway simulator with its bus on
# vcan1, checked with candump and cansend.
gateway_sim_vm_test --gtest_color=no
