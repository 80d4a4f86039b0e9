# Empty dependencies file for mediawalk.
# This may be replaced when dependencies are built.
