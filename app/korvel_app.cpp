// korvel-app: drives the camera's media-file server from a laptop (see tool_main.cpp).
#include <cstdio>

#include "app/tool.h"

int main(int argc, char** argv) {
    return korvel::app::tool_main(argc, argv, stdout, stderr);
}
