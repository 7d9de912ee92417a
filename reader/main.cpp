// The program that takes files apart, for those that must not be harmed by what is in them.
#include "reader/inside/picture.h"
#include "reader/inside/serve.h"
#include "reader/inside/tags.h"

int main(int argc, char** argv) {
    return nuvio::reader::serve(
        argc, argv, {.tags = nuvio::reader::read_tags, .picture = nuvio::reader::read_picture});
}
