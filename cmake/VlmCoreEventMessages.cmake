# The message table that lets the Windows event log show what CSystemLogger wrote: one message per identifier,
# 0x60000000 to 0x6000FFFF, each "%1", the text of the event.
#
# A message table lists ranges of identifiers, and for each range where its texts lie, one behind the other. So 256 ranges
# of 256 identifiers can share the same 256 texts, and the table takes 6 KB where a plain one takes 800.

# vlmcore_write_event_messages(<file.rc>)
function(vlmcore_write_event_messages file)
  math(EXPR texts "4 + 256 * 12")
  set(ranges "")
  set(entries "")
  foreach(index RANGE 255)
    math(EXPR low "0x60000000 + ${index} * 256" OUTPUT_FORMAT HEXADECIMAL)
    math(EXPR high "0x600000FF + ${index} * 256" OUTPUT_FORMAT HEXADECIMAL)
    string(APPEND ranges "  ${low}L, ${high}L, ${texts}L,\n")
    # length, flags (8-bit text), text
    string(APPEND entries "  12, 0, \"%1\\r\\n\\0\\0\\0\\0\",\n")
  endforeach()
  string(REGEX REPLACE ",\n$" "\n" entries "${entries}")
  file(CONFIGURE OUTPUT ${file} CONTENT "1 11\n{\n  256L,\n${ranges}${entries}}\n" @ONLY)
endfunction()
