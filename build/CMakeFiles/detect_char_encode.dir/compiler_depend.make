# Empty compiler generated dependencies file for detect_char_encode.
# This may be replaced when dependencies are built.
