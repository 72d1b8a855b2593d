# Prints the C++ of a manual page's examples, with line numbers that lead a compiler's messages to
# the page. Fails when there is none.
/^\.Sh / { wanted = $2 == "EXAMPLES"; next }
wanted && /^\.Bd -literal/ { printf "#line %d \"%s\"\n", FNR + 1, FILENAME; inside = 1; next }
/^\.Ed/ { if (inside) exit }
inside { gsub(/\\-/, "-"); gsub(/\\e/, "\\"); print }
END { if (!inside) exit 1 }
