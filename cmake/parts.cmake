# Parts of the project that need more than a C++ compiler. QX_BUILD_TESTS and QX_BUILD_EXAMPLES are
# each one of
#
#   AUTO  built where what it needs is here, and left out by name where not: the default
#   ON    built; what is missing ends the configuration
#   OFF   not built: the default inside of another project

# qx_part(PART DESCRIPTION): the option of a part. A variable of the surrounding project counts too.
function(qx_part part description)
  if(DEFINED QX_BUILD_${part})
    return()
  endif()
  set(default OFF)
  if(QX_IS_TOP_LEVEL)
    set(default AUTO)
  endif()
  set(QX_BUILD_${part} ${default} CACHE STRING
    "Build ${description}: ON, OFF, or AUTO, which leaves out what misses a package")
  set_property(CACHE QX_BUILD_${part} PROPERTY STRINGS AUTO ON OFF)
endfunction()

# qx_leave_out(WHAT MISSING): says what this build is without. `./check` fails where this is said.
function(qx_leave_out what missing)
  message(STATUS "qx_runtime: left out, for want of ${missing}: ${what}")
endfunction()

# qx_lack(PART WHAT MISSING): the same of what a part that is ON must have.
function(qx_lack part what missing)
  if(NOT QX_BUILD_${part} STREQUAL "AUTO")
    message(FATAL_ERROR
      "qx_runtime: ${missing} is missing, which QX_BUILD_${part}=${QX_BUILD_${part}} wants for "
      "${what}; AUTO leaves it out")
  endif()
  qx_leave_out("${what}" "${missing}")
endfunction()
