// The shared library is the core archive linked whole; exports.map keeps only the public entry
// points (CorvaneSystemGetInstance, CorvaneSystem::Create, CorvaneSystem::Destroy) visible.
