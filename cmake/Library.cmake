# What the libraries share: C++20 for their users, hidden visibility with the public API
# marked, a SOVERSION, and in a shared build a version script that keeps every name outside
# namespace kelvane out of the dynamic symbol table.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  # Before 1.0 a minor release may break the ABI.
  set(KELVANE_SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
else()
  set(KELVANE_SOVERSION ${PROJECT_VERSION_MAJOR})
endif()

function(kelvane_library_properties target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    VERSION ${PROJECT_VERSION}
    SOVERSION ${KELVANE_SOVERSION})
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "SHARED_LIBRARY")
    set(map ${PROJECT_SOURCE_DIR}/cmake/exports.map)
    target_link_options(${target} PRIVATE "LINKER:--version-script=${map}" "LINKER:--no-undefined")
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map})
  endif()
endfunction()
