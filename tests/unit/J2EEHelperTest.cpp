#include <gtest/gtest.h>

#include "classfile/ClassFile.h"
#include "instrument/J2EEHelper.h"
#include "tests/unit/ClassFileTestSupport.h"

using namespace kjptest;

TEST(J2EEHelper, CatalogueIsFilledAtLoadAndMatchesByNameAndDescriptor) {
  // 86 rows, of which two repeat a method under a second interface, and the ten servlet rows
  // again for Jakarta, of which the three of PageContext and the second getRequestDispatcher
  // name no servlet type of their own.
  EXPECT_EQ(84 + 6, J2EEHelper::ourAllMethods.size());
  EXPECT_EQ(12 + 6, J2EEHelper::ourAllInterfaceNames.size());
  EXPECT_TRUE(J2EEHelper::ourAllInterfaceNames.contains("Ljavax/naming/directory/DirContext;"));
  EXPECT_TRUE(J2EEHelper::ourAllInterfaceNames.contains("Ljakarta/servlet/ServletRequest;"));
  const J2EEMethod* jakartaService = J2EEHelper::find(
      "service", "(Ljakarta/servlet/http/HttpServletRequest;Ljakarta/servlet/http/HttpServletResponse;)V");
  ASSERT_NE(nullptr, jakartaService);
  EXPECT_EQ(5, jakartaService->getJ2EEInstrumentationType());
  EXPECT_EQ(4, jakartaService->getJ2EEMethodType());
  const J2EEMethod* jakartaForward =
      J2EEHelper::find("forward", "(Ljakarta/servlet/ServletRequest;Ljakarta/servlet/ServletResponse;)V");
  ASSERT_NE(nullptr, jakartaForward);
  EXPECT_EQ(2, jakartaForward->getJ2EEInstrumentationType());
  EXPECT_EQ(6, jakartaForward->getJ2EEMethodType());

  const J2EEMethod* query = J2EEHelper::find("executeQuery", "(Ljava/lang/String;)Ljava/sql/ResultSet;");
  ASSERT_NE(nullptr, query);
  EXPECT_EQ(J2EEHelper::J2EE_INSTRUMENTATION_TYPE_3, query->getJ2EEInstrumentationType());
  EXPECT_EQ(1, query->getJ2EEMethodType());
  const J2EEMethod* service =
      J2EEHelper::find("service", "(Ljavax/servlet/http/HttpServletRequest;Ljavax/servlet/http/HttpServletResponse;)V");
  ASSERT_NE(nullptr, service);
  EXPECT_EQ(5, service->getJ2EEInstrumentationType());
  EXPECT_EQ(4, service->getJ2EEMethodType());
  const J2EEMethod* lookup = J2EEHelper::find("lookup", "(Ljavax/naming/Name;)Ljava/lang/Object;");
  ASSERT_NE(nullptr, lookup);
  EXPECT_EQ(4, lookup->getJ2EEInstrumentationType());
  EXPECT_EQ(7, lookup->getJ2EEMethodType());

  EXPECT_EQ(nullptr, J2EEHelper::find("executeQuery", "()V"));
  EXPECT_EQ(nullptr, J2EEHelper::find("close", "(I)V"));
  EXPECT_EQ(nullptr, J2EEHelper::find("", ""));
}

TEST(J2EEHelper, KeysHashLikeJavaStrings) {
  // "close" + "()V" hashes as the Java string "close()V" does: 31*h + c over the bytes.
  J2EEMethod close("close", "()V", 4, 1);
  EXPECT_EQ(1092770429, close.getHash());  // "close()V".hashCode() in Java
  J2EEMethod other("close", "()V", 0, 0);
  const J2EEMethod* a = &close;
  const J2EEMethod* b = &other;
  EXPECT_TRUE(kmap_equal(a, b));
  EXPECT_EQ(kmap_hashCode(a), kmap_hashCode(b));
}

TEST(J2EEHelper, CandidateClassesAreFoundByTheMethodsOfTheClassModel) {
  // close()V is in the catalogue: a class with it is a candidate, and the catalogue gives the
  // method its types.
  ParsedClass flow = parse(readTestClass("v7/kjptest/Flow7.class"));
  EXPECT_TRUE(J2EEHelper::canBeJ2EEClass(*flow.model));
  const J2EEMethod* close = J2EEHelper::find(flow.model->findMethod("close", "()V"));
  ASSERT_NE(nullptr, close);
  EXPECT_EQ(4, close->getJ2EEInstrumentationType());
  EXPECT_EQ(1, close->getJ2EEMethodType());
  EXPECT_EQ(nullptr, J2EEHelper::find(flow.model->findMethod("loop", "(IJDLjava/lang/Object;[I)I")));
  // An interface never is, whatever its methods.
  EXPECT_FALSE(J2EEHelper::canBeJ2EEClass(*parse(readTestClass("v7/kjptest/Closeable7.class")).model));
  EXPECT_FALSE(J2EEHelper::canBeJ2EEClass(*parse(readTestClass("v17/kjptest/Modern17.class")).model));
}
