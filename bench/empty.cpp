// What any program costs: does nothing, or with an argument waits to be looked at.
#include <unistd.h>

int main(int argc, char**) {
    return argc > 1 ? pause() : 0;
}
