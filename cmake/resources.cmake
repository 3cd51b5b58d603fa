# Embeds text files into a target as `std::string_view` constants. A file `name.ext` becomes
# `quill::resources::name_ext()`. YAML files are served with CR LF line ends, so they are
# converted here, once, at build time.
function(quill_embed_resources target)
  set(out_dir ${CMAKE_BINARY_DIR}/generated)
  foreach(input ${ARGN})
    get_filename_component(fname ${input} NAME)
    string(MAKE_C_IDENTIFIER ${fname} ident)
    set(output ${out_dir}/resource_${ident}.cpp)
    add_custom_command(
      OUTPUT ${output}
      COMMAND ${CMAKE_COMMAND} -DINPUT=${input} -DOUTPUT=${output} -DIDENT=${ident}
              -P ${CMAKE_SOURCE_DIR}/cmake/embed.cmake
      DEPENDS ${input} ${CMAKE_SOURCE_DIR}/cmake/embed.cmake
      COMMENT "Embedding ${fname}")
    target_sources(${target} PRIVATE ${output})
  endforeach()
endfunction()
