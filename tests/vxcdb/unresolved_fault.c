// A fault library calling a function that nothing provides, beside an inline-hook function that
// the camera process provides: the service, opening it with RTLD_NOW, cannot load it.
void* shadowhook_get_prev_func(void* function);
int CorvaneFunctionNobodyProvides(int value);

__attribute__((visibility("default"))) int FaultUnresolved(int value) {
    return shadowhook_get_prev_func(0) != 0 ? 0 : CorvaneFunctionNobodyProvides(value);
}
