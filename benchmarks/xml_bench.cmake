# XML tokenizing beside expat, libxml2 (SAX), rapidxml and pugixml (Debian: libexpat1-dev libxml2-dev librapidxml-dev
# libpugixml-dev; documents from shared-mime-info, iso-codes and unicode-cldr-core).
find_package(EXPAT QUIET)
find_package(LibXml2 QUIET)
find_package(pugixml QUIET)
find_path(VLMCORE_RAPIDXML rapidxml/rapidxml.hpp)

set(xml_peers "")
set(xml_definitions "")
macro(xml_peer name found library)
  if(${found})
    list(APPEND xml_peers ${library})
    list(APPEND xml_definitions VLMCORE_BENCH_${name})
  else()
    message(STATUS "xml benchmark: ${name} not found, its comparison is left out")
  endif()
endmacro()
xml_peer(EXPAT EXPAT_FOUND EXPAT::EXPAT)
xml_peer(LIBXML2 LibXml2_FOUND LibXml2::LibXml2)
xml_peer(PUGIXML pugixml_FOUND pugixml::pugixml)
xml_peer(RAPIDXML VLMCORE_RAPIDXML "")

vlmcore_benchmark(xml ${xml_peers})
target_compile_definitions(xml_bench PRIVATE ${xml_definitions})
