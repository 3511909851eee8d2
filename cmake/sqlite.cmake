# zel_sqlite: SQLite with page encryption. The bundled one is linked statically with hidden
# symbols, so that a host may load any other SQLite beside it. The two file formats differ.
if(ZEL_SQLITE STREQUAL "bundled")
  set(sqlite_dir ${PROJECT_SOURCE_DIR}/build-deps/sqlite3mc)
  if(NOT EXISTS ${sqlite_dir}/sqlite3.c)
    message(FATAL_ERROR "${sqlite_dir}/sqlite3.c is missing: run scripts/setup.sh")
  endif()
  add_library(zel_sqlite STATIC ${sqlite_dir}/sqlite3.c)
  target_include_directories(zel_sqlite SYSTEM PUBLIC ${sqlite_dir})
  target_compile_definitions(zel_sqlite PRIVATE
    SQLITE_THREADSAFE=1 SQLITE_DQS=0 SQLITE_TEMP_STORE=2 SQLITE_OMIT_SHARED_CACHE
    SQLITE_OMIT_LOAD_EXTENSION SQLITE_DEFAULT_MEMSTATUS=0)
  # ChaCha20, the default, is the one cipher used; the others would only make the file larger.
  foreach(cipher AES_128_CBC AES_256_CBC SQLCIPHER RC4 ASCON128 AEGIS)
    target_compile_definitions(zel_sqlite PRIVATE HAVE_CIPHER_${cipher}=0)
  endforeach()
  # -O2, as in its own builds, makes it much smaller than the -O3 of a release.
  target_compile_options(zel_sqlite PRIVATE -w $<$<CONFIG:Release>:-O2>)
  set_target_properties(zel_sqlite PROPERTIES C_VISIBILITY_PRESET hidden)
  if(ZEL_SANITIZE MATCHES "thread")
    target_compile_options(zel_sqlite PRIVATE -fsanitize=thread)
  elseif(ZEL_SANITIZE MATCHES "address")
    target_compile_options(zel_sqlite PRIVATE -fsanitize=address)
  endif()
  target_link_libraries(zel_sqlite PRIVATE zel_hardening Threads::Threads ${CMAKE_DL_LIBS})
else()
  pkg_check_modules(sqlcipher REQUIRED IMPORTED_TARGET sqlcipher)
  add_library(zel_sqlite INTERFACE)
  target_link_libraries(zel_sqlite INTERFACE PkgConfig::sqlcipher)
  target_compile_definitions(zel_sqlite INTERFACE SQLITE_HAS_CODEC)
endif()
