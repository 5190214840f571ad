# Writes the text file IN to OUT as a C++ raw string literal, to be included
# where the string is defined: cmake -DIN=file -DOUT=file -P EmbedText.cmake
file(READ ${IN} text)
set(delimiter "lumora_cl")
string(FIND "${text}" ")${delimiter}\"" clash)
if(NOT clash EQUAL -1)
  message(FATAL_ERROR "${IN} contains the raw string's closing delimiter")
endif()
file(WRITE ${OUT}.tmp "R\"${delimiter}(${text})${delimiter}\"\n")
file(COPY_FILE ${OUT}.tmp ${OUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUT}.tmp)
