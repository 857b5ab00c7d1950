# vk_refuse(<text>...) ends the configuration with one line that says what is wrong and what to do.
# The space ahead keeps CMake from breaking it; scripts find it by its first words.
function(vk_refuse)
  math(EXPR last "${ARGC} - 1")
  set(text "")
  foreach(i RANGE ${last})  # one by one: a list of the arguments would lose their semicolons
    string(APPEND text "${ARGV${i}}")
  endforeach()
  message(FATAL_ERROR " vk_rund can't be built: ${text}")
endfunction()
