# The translatable texts of the AppStream metainfo come from the program's own string tables
# (services/strings/*.json, keys "appstream.*"), so that the store page speaks the same 15
# languages as the window. quillane_metainfo_texts() sets, for each such key, a variable
# AS_<key without "appstream." and with dots as underscores> holding the element in American
# English followed by one element per other language (xml:lang), ready for configure_file.

# Table name = xml:lang, as the desktop files name the same languages.
set(QUILLANE_METAINFO_LANGUAGES
    "en-GB=en_GB" "fr=fr" "de=de" "es-ES=es" "es-419=es_419" "it=it" "pt-PT=pt" "pt-BR=pt_BR"
    "ja=ja" "ko=ko" "zh-Hans=zh_CN" "zh-Hant=zh_TW" "ru=ru" "hi=hi")

function(_quillane_xml_escape text out)
  string(REPLACE "&" "&amp;" text "${text}")
  string(REPLACE "<" "&lt;" text "${text}")
  string(REPLACE ">" "&gt;" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# quillane_metainfo_texts(STRINGS_DIR KEY TAG INDENT ...): one call per element, KEY TAG INDENT
# repeated, INDENT being the spaces before the second and later lines.
function(quillane_metainfo_texts strings_dir)
  file(READ ${strings_dir}/en-US.json base_table)
  foreach(pair ${QUILLANE_METAINFO_LANGUAGES})
    string(REPLACE "=" ";" pair "${pair}")
    list(GET pair 0 table)
    file(READ ${strings_dir}/${table}.json table_${table})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${strings_dir}/${table}.json)
  endforeach()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${strings_dir}/en-US.json)

  set(args ${ARGN})
  while(args)
    list(POP_FRONT args key tag indent)
    string(JSON base GET "${base_table}" "${key}")
    _quillane_xml_escape("${base}" base)
    set(xml "<${tag}>${base}</${tag}>")
    foreach(pair ${QUILLANE_METAINFO_LANGUAGES})
      string(REPLACE "=" ";" pair "${pair}")
      list(GET pair 0 table)
      list(GET pair 1 lang)
      string(JSON text GET "${table_${table}}" "${key}")
      _quillane_xml_escape("${text}" text)
      # A translation that says exactly what the original says adds nothing.
      if(NOT text STREQUAL base)
        string(APPEND xml "\n${indent}<${tag} xml:lang=\"${lang}\">${text}</${tag}>")
      endif()
    endforeach()
    string(REPLACE "appstream." "" name "${key}")
    string(REPLACE "." "_" name "${name}")
    set(AS_${name} "${xml}" PARENT_SCOPE)
  endwhile()
endfunction()
