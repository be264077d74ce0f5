# The closed-form evaluators are derived at build time from the defining
# formula in exact arithmetic (sh/gen_polynomials.py), so no constant of the
# 16 bands is ever typed by hand.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(VELR_SH_POLYNOMIALS ${PROJECT_BINARY_DIR}/generated/sh/polynomials-inl.h)
add_custom_command(
  OUTPUT ${VELR_SH_POLYNOMIALS}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/generated/sh
  COMMAND Python3::Interpreter ${PROJECT_SOURCE_DIR}/sh/gen_polynomials.py ${VELR_SH_POLYNOMIALS} 15
  DEPENDS ${PROJECT_SOURCE_DIR}/sh/gen_polynomials.py
  COMMENT "Generating the closed-form spherical-harmonic evaluators"
  VERBATIM)
target_sources(velr_obj PRIVATE ${VELR_SH_POLYNOMIALS})
