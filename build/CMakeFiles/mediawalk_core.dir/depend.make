# Empty dependencies file for mediawalk_core.
# This may be replaced when dependencies are built.
