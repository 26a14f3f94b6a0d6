# Tests on a real SocketCAN stack, inside a QEMU VM (the host kernel has no CAN).
#
# A test folder's <name>_vm_test.cpp (or vm/<name>_vm_test.cpp) with
# <name>_scenario.sh beside it is registered by orvane_test_folder
# (tests/CMakeLists.txt) as the VM test <name>_vm: the test program and the
# folder's DEPENDS go into the VM and the scenario runs them. Directly:
#
#   orvane_add_vm_test(NAME <test name>
#                      SCENARIO <shell script run inside the VM>
#                      BINARIES <target or path>...   # put on PATH, with their shared libraries
#                      [FILES <path>...]              # copied to /opt/vm/files
#                      [TIMEOUT <seconds>])           # limit for the VM run, default 300
#
# One boot runs the whole scenario: group related cases into one scenario.
# Inside the VM vcan0 and vcan1 are up, the binaries and candump, cansend and
# cangen are on PATH, the working directory is /tmp, and busybox provides the
# shell tools (ip, sleep, timeout, ...); the scenario runs under busybox sh.
# Its exit status is the test's result. The test carries the label "vm" and
# fails (never skips) when the VM cannot start. Run only these tests with
# `ctest -L vm`; the sanitizer runs leave them out with `-LE vm`. The kernel
# package is downloaded on first use into /var/cache/orvane-vm (override with
# ORVANE_VM_CACHE); see run-vm.sh for what the VM offers.
set(ORVANE_VM_RUNNER ${CMAKE_CURRENT_LIST_DIR}/run-vm.sh CACHE INTERNAL "VM test runner")

function(orvane_add_vm_test)
  cmake_parse_arguments(VM "SHARE_USR" "NAME;SCENARIO;TIMEOUT" "BINARIES;FILES" ${ARGN})
  if(NOT VM_NAME OR NOT VM_SCENARIO)
    message(FATAL_ERROR "orvane_add_vm_test needs NAME and SCENARIO")
  endif()
  if(NOT VM_TIMEOUT)
    set(VM_TIMEOUT 300)
  endif()
  get_filename_component(scenario ${VM_SCENARIO} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
  set(arguments --name ${VM_NAME} --scenario ${scenario}
                --workdir ${CMAKE_CURRENT_BINARY_DIR}/${VM_NAME}.vm --timeout ${VM_TIMEOUT})
  foreach(file IN LISTS VM_FILES)
    get_filename_component(file ${file} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
    list(APPEND arguments --file ${file})
  endforeach()
  if(VM_SHARE_USR)
    list(APPEND arguments --share-usr)
  endif()
  list(APPEND arguments --)
  foreach(binary IN LISTS VM_BINARIES)
    if(TARGET ${binary})
      list(APPEND arguments $<TARGET_FILE:${binary}>)
    else()
      list(APPEND arguments ${binary})
    endif()
  endforeach()
  add_test(NAME ${VM_NAME} COMMAND bash ${ORVANE_VM_RUNNER} ${arguments})
  # Room for the one-time kernel download and packing on top of the VM's own limit.
  math(EXPR ctest_timeout "${VM_TIMEOUT} + 300")
  set_tests_properties(${VM_NAME} PROPERTIES LABELS vm TIMEOUT ${ctest_timeout})
endfunction()
