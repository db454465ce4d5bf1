# media_backend_missing(RESULT WHAT VARIABLE NAME [VARIABLE NAME]...): sets RESULT to whether a VARIABLE
# is false, that is, its dependency was not found, and says then that WHAT is left out, with the NAMEs
# that are missing.
function(media_backend_missing result what)
  set(missing "")
  while(ARGN)
    list(POP_FRONT ARGN variable name)
    if(NOT ${variable})
      list(APPEND missing ${name})
    endif()
  endwhile()
  if(missing)
    list(JOIN missing ", " names)
    message(NOTICE "${what} left out, not found: ${names}")
    set(${result} TRUE PARENT_SCOPE)
  else()
    set(${result} FALSE PARENT_SCOPE)
  endif()
endfunction()
