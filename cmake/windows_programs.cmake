# kv_describe_program(NAME DESCRIPTION): what Windows shows of a program in its properties, and its manifest.
function(kv_describe_program program description)
  if(WIN32)
    configure_file(${CMAKE_SOURCE_DIR}/packaging/windows/program.rc.in ${program}.rc @ONLY)
    target_sources(${program} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${program}.rc)
    set_source_files_properties(${CMAKE_CURRENT_BINARY_DIR}/${program}.rc PROPERTIES
      OBJECT_DEPENDS ${CMAKE_SOURCE_DIR}/packaging/windows/program.manifest)
  endif()
endfunction()
