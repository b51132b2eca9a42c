# Makes a text file a constant of a program:
#   cmake -DINPUT=FILE -DOUTPUT=FILE.cpp -DHEADER=HEADER -DNAME=namespace::kName -P embed.cmake
# HEADER declares the constant: extern const std::string_view kName.
file(READ "${INPUT}" content)
file(WRITE "${OUTPUT}" "#include \"${HEADER}\"\nconst std::string_view ${NAME} = R\"embedded(${content})embedded\";\n")
