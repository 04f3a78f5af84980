#include "BenchController.h"

#include "TwampTestSessionController.h"

void BenchController::adopt() {
    static BenchController controller;
    TwampTestSessionController::getInstance(&controller);
}
