# Prints the C++ of the fence under the comment <!-- KIND: NAME -->, with -v name=NAME, and line
# numbers that lead a compiler's messages to the document. Fails when there is none.
/^<!-- (program|function): / { wanted = $3 == name; next }
wanted && /^```cpp$/ { printf "#line %d \"%s\"\n", FNR + 1, FILENAME; inside = 1; next }
/^```$/ { if (inside) exit }
inside
END { if (!inside) exit 1 }
