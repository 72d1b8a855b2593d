# Prints the C++ of the fence under the comment <!-- KIND: NAME -->, with -v name=NAME, and line
# numbers that lead a compiler's messages to the document.
/^<!-- (program|function): / { wanted = $3 == name; next }
wanted && /^```cpp$/ { printf "#line %d \"%s\"\n", FNR + 1, FILENAME; inside = 1; next }
/^```$/ { if (inside) exit }
inside
