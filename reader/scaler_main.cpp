// The program that makes pictures smaller, for those that must not be harmed by what is in them.
#include "reader/inside/scaled_picture.h"
#include "reader/inside/serve.h"

int main(int argc, char** argv) {
    return nuvio::reader::serve(argc, argv, {.scaled_picture = nuvio::reader::scale_picture});
}
