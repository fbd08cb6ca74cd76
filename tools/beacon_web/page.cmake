# Writes OUTPUT, a C++ source that has the page's FILES (in FOLDER, separated by commas), each
# compressed with gzip.
set(type_html "text/html; charset=utf-8")
set(type_js "text/javascript; charset=utf-8")
set(type_css "text/css; charset=utf-8")
set(type_svg "image/svg+xml")
string(REPLACE "," ";" FILES "${FILES}")
set(arrays "")
set(rows "")
set(number 0)
foreach(file IN LISTS FILES)
    file(ARCHIVE_CREATE OUTPUT "${OUTPUT}.gz" PATHS "${FOLDER}/${file}"
        FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9)
    file(READ "${OUTPUT}.gz" bytes HEX)
    file(REMOVE "${OUTPUT}.gz")
    # The same files make the same program: no time of compression in bytes 4 to 7.
    string(SUBSTRING "${bytes}" 0 8 begin)
    string(SUBSTRING "${bytes}" 16 -1 rest)
    string(REGEX REPLACE "(..)" "0x\\1," bytes "${begin}00000000${rest}")
    string(REGEX REPLACE "^.*\\." "" ending "${file}")
    string(APPEND arrays "const uint8_t file_${number}[] = {${bytes}};\n")
    string(APPEND rows "    {\"/${file}\", \"${type_${ending}}\", file_${number}},\n")
    math(EXPR number "${number} + 1")
endforeach()
file(WRITE "${OUTPUT}" "#include \"beacon_web/page_files.h\"\n\nnamespace {\n${arrays}"
    "const PageFile files[] = {\n${rows}};\n} // namespace\n\n"
    "std::span<const PageFile> page_files() {\n    return files;\n}\n")
