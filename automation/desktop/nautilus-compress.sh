#!/bin/sh
# Nautilus script "Compress with Quillane": compresses the selected images into the default
# export profile's folder, or beside them when no profile gives a folder. Nautilus runs it in the selection's folder with the selected names
# as arguments; the outcome comes back as a desktop notification.
# Install: ln -s /usr/share/quillane/nautilus/"Compress with Quillane" ~/.local/share/nautilus/scripts/
exec quillane --compress -- "$@"
