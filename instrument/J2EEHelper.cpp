#include "instrument/J2EEHelper.h"

#include <stdlib.h>
#include <string.h>

#include "agent/KAssert.h"
#include "classfile/ClassFile.h"
#include "classfile/MethodInfo.h"

KSet<const J2EEMethod*> J2EEHelper::ourAllMethods(256);
KSet<const char*> J2EEHelper::ourAllInterfaceNames(64);

namespace {

// The catalogue's interfaces, each with the J2EE method type of its rows below.
struct CatalogueInterface {
  const char* mySignature;
  int myMethodType;
};

const CatalogueInterface INTERFACES[] = {
    {"Ljava/sql/Connection;", 1},
    {"Ljava/sql/Statement;", 1},
    {"Ljava/sql/PreparedStatement;", 1},
    {"Ljava/sql/Driver;", 2},
    {"Ljavax/servlet/http/HttpServlet;", 4},
    {"Ljavax/servlet/jsp/HttpJspPage;", 5},
    {"Ljavax/servlet/RequestDispatcher;", 6},
    {"Ljavax/servlet/ServletRequest;", 6},
    {"Ljavax/servlet/ServletContext;", 6},
    {"Ljavax/servlet/jsp/PageContext;", 6},
    {"Ljavax/naming/Context;", 7},
    {"Ljavax/naming/directory/DirContext;", 7},
    // Servlet containers of today use the Jakarta namespace.
    {"Ljakarta/servlet/http/HttpServlet;", 4},
    {"Ljakarta/servlet/jsp/HttpJspPage;", 5},
    {"Ljakarta/servlet/RequestDispatcher;", 6},
    {"Ljakarta/servlet/ServletRequest;", 6},
    {"Ljakarta/servlet/ServletContext;", 6},
    {"Ljakarta/servlet/jsp/PageContext;", 6},
};

// Name, descriptor, J2EE instrumentation type, J2EE method type (1 JDBC, 2 driver connect,
// 4 servlet service, 5 JSP service, 6 request dispatching, 7 JNDI).
const char* const CATALOGUE[][4] = {
    // java/sql/Connection
    {"close", "()V", "4", "1"},
    {"commit", "()V", "4", "1"},
    {"createStatement", "(III)Ljava/sql/Statement;", "4", "1"},
    {"createStatement", "(II)Ljava/sql/Statement;", "4", "1"},
    {"createStatement", "()Ljava/sql/Statement;", "4", "1"},
    {"prepareCall", "(Ljava/lang/String;III)Ljava/sql/CallableStatement;", "1", "1"},
    {"prepareCall", "(Ljava/lang/String;II)Ljava/sql/CallableStatement;", "1", "1"},
    {"prepareCall", "(Ljava/lang/String;)Ljava/sql/CallableStatement;", "1", "1"},
    {"prepareStatement", "(Ljava/lang/String;I)Ljava/sql/PreparedStatement;", "1", "1"},
    {"prepareStatement", "(Ljava/lang/String;[Ljava/lang/String;)Ljava/sql/PreparedStatement;", "1", "1"},
    {"prepareStatement", "(Ljava/lang/String;III)Ljava/sql/PreparedStatement;", "1", "1"},
    {"prepareStatement", "(Ljava/lang/String;)Ljava/sql/PreparedStatement;", "1", "1"},
    {"prepareStatement", "(Ljava/lang/String;II)Ljava/sql/PreparedStatement;", "1", "1"},
    {"prepareStatement", "(Ljava/lang/String;[I)Ljava/sql/PreparedStatement;", "1", "1"},
    {"rollback", "(Ljava/sql/Savepoint;)V", "4", "1"},
    {"rollback", "()V", "4", "1"},
    // java/sql/Statement
    {"close", "()V", "4", "1"},
    {"execute", "(Ljava/lang/String;I)Z", "3", "1"},
    {"execute", "(Ljava/lang/String;)Z", "3", "1"},
    {"execute", "(Ljava/lang/String;[I)Z", "3", "1"},
    {"execute", "(Ljava/lang/String;[Ljava/lang/String;)Z", "3", "1"},
    {"executeBatch", "()[I", "4", "1"},
    {"executeQuery", "(Ljava/lang/String;)Ljava/sql/ResultSet;", "3", "1"},
    {"executeUpdate", "(Ljava/lang/String;[I)I", "3", "1"},
    {"executeUpdate", "(Ljava/lang/String;)I", "3", "1"},
    {"executeUpdate", "(Ljava/lang/String;I)I", "3", "1"},
    {"executeUpdate", "(Ljava/lang/String;[Ljava/lang/String;)I", "3", "1"},
    // java/sql/PreparedStatement
    {"execute", "()Z", "2", "1"},
    {"executeQuery", "()Ljava/sql/ResultSet;", "2", "1"},
    {"executeUpdate", "()I", "2", "1"},
    // java/sql/Driver
    {"connect", "(Ljava/lang/String;Ljava/util/Properties;)Ljava/sql/Connection;", "3", "2"},
    // javax/servlet/http/HttpServlet
    {"service", "(Ljavax/servlet/http/HttpServletRequest;Ljavax/servlet/http/HttpServletResponse;)V", "5", "4"},
    // javax/servlet/jsp/HttpJspPage
    {"_jspService", "(Ljavax/servlet/http/HttpServletRequest;Ljavax/servlet/http/HttpServletResponse;)V", "5", "5"},
    // javax/servlet/RequestDispatcher
    {"forward", "(Ljavax/servlet/ServletRequest;Ljavax/servlet/ServletResponse;)V", "2", "6"},
    {"include", "(Ljavax/servlet/ServletRequest;Ljavax/servlet/ServletResponse;)V", "2", "6"},
    // javax/servlet/ServletRequest
    {"getRequestDispatcher", "(Ljava/lang/String;)Ljavax/servlet/RequestDispatcher;", "1", "6"},
    // javax/servlet/ServletContext
    {"getRequestDispatcher", "(Ljava/lang/String;)Ljavax/servlet/RequestDispatcher;", "1", "6"},
    {"getNamedDispatcher", "(Ljava/lang/String;)Ljavax/servlet/RequestDispatcher;", "1", "6"},
    // javax/servlet/jsp/PageContext
    {"forward", "(Ljava/lang/String;)V", "3", "6"},
    {"include", "(Ljava/lang/String;)V", "3", "6"},
    {"include", "(Ljava/lang/String;Z)V", "3", "6"},
    // javax/naming/Context
    {"list", "(Ljava/lang/String;)Ljavax/naming/NamingEnumeration;", "3", "7"},
    {"lookup", "(Ljava/lang/String;)Ljava/lang/Object;", "3", "7"},
    {"bind", "(Ljava/lang/String;Ljava/lang/Object;)V", "3", "7"},
    {"listBindings", "(Ljava/lang/String;)Ljavax/naming/NamingEnumeration;", "3", "7"},
    {"lookupLink", "(Ljava/lang/String;)Ljava/lang/Object;", "3", "7"},
    {"rebind", "(Ljava/lang/String;Ljava/lang/Object;)V", "3", "7"},
    {"unbind", "(Ljava/lang/String;)V", "3", "7"},
    {"list", "(Ljavax/naming/Name;)Ljavax/naming/NamingEnumeration;", "4", "7"},
    {"lookup", "(Ljavax/naming/Name;)Ljava/lang/Object;", "4", "7"},
    {"rename", "(Ljavax/naming/Name;Ljavax/naming/Name;)V", "4", "7"},
    {"bind", "(Ljavax/naming/Name;Ljava/lang/Object;)V", "4", "7"},
    {"composeName", "(Ljavax/naming/Name;Ljavax/naming/Name;)Ljavax/naming/Name;", "4", "7"},
    {"createSubcontext", "(Ljavax/naming/Name;)Ljavax/naming/Context;", "4", "7"},
    {"destroySubcontext", "(Ljavax/naming/Name;)V", "4", "7"},
    {"getNameParser", "(Ljavax/naming/Name;)Ljavax/naming/NameParser;", "4", "7"},
    {"listBindings", "(Ljavax/naming/Name;)Ljavax/naming/NamingEnumeration;", "4", "7"},
    {"lookupLink", "(Ljavax/naming/Name;)Ljava/lang/Object;", "4", "7"},
    {"rebind", "(Ljavax/naming/Name;Ljava/lang/Object;)V", "4", "7"},
    {"unbind", "(Ljavax/naming/Name;)V", "4", "7"},
    // javax/naming/directory/DirContext
    {"search", "(Ljava/lang/String;Ljava/lang/String;[Ljava/lang/Object;Ljavax/naming/directory/SearchControls;)Ljavax/naming/NamingEnumeration;", "3", "7"},
    {"search", "(Ljava/lang/String;Ljavax/naming/directory/Attributes;[Ljava/lang/String;)Ljavax/naming/NamingEnumeration;", "3", "7"},
    {"search", "(Ljava/lang/String;Ljavax/naming/directory/Attributes;)Ljavax/naming/NamingEnumeration;", "3", "7"},
    {"search", "(Ljava/lang/String;Ljava/lang/String;Ljavax/naming/directory/SearchControls;)Ljavax/naming/NamingEnumeration;", "3", "7"},
    {"getAttributes", "(Ljava/lang/String;)Ljavax/naming/directory/Attributes;", "3", "7"},
    {"getAttributes", "(Ljava/lang/String;[Ljava/lang/String;)Ljavax/naming/directory/Attributes;", "3", "7"},
    {"bind", "(Ljava/lang/String;Ljava/lang/Object;Ljavax/naming/directory/Attributes;)V", "3", "7"},
    {"createSubcontext", "(Ljava/lang/String;Ljavax/naming/directory/Attributes;)Ljavax/naming/directory/DirContext;", "3", "7"},
    {"rebind", "(Ljava/lang/String;Ljava/lang/Object;Ljavax/naming/directory/Attributes;)V", "3", "7"},
    {"getSchema", "(Ljava/lang/String;)Ljavax/naming/directory/DirContext;", "3", "7"},
    {"getSchemaClassDefinition", "(Ljava/lang/String;)Ljavax/naming/directory/DirContext;", "3", "7"},
    {"modifyAttributes", "(Ljava/lang/String;ILjavax/naming/directory/Attributes;)V", "3", "7"},
    {"modifyAttributes", "(Ljava/lang/String;[Ljavax/naming/directory/ModificationItem;)V", "3", "7"},
    {"search", "(Ljavax/naming/Name;Ljavax/naming/directory/Attributes;)Ljavax/naming/NamingEnumeration;", "4", "7"},
    {"search", "(Ljavax/naming/Name;Ljava/lang/String;[Ljava/lang/Object;Ljavax/naming/directory/SearchControls;)Ljavax/naming/NamingEnumeration;", "4", "7"},
    {"search", "(Ljavax/naming/Name;Ljava/lang/String;Ljavax/naming/directory/SearchControls;)Ljavax/naming/NamingEnumeration;", "4", "7"},
    {"search", "(Ljavax/naming/Name;Ljavax/naming/directory/Attributes;[Ljava/lang/String;)Ljavax/naming/NamingEnumeration;", "4", "7"},
    {"getAttributes", "(Ljavax/naming/Name;[Ljava/lang/String;)Ljavax/naming/directory/Attributes;", "4", "7"},
    {"getAttributes", "(Ljavax/naming/Name;)Ljavax/naming/directory/Attributes;", "4", "7"},
    {"bind", "(Ljavax/naming/Name;Ljava/lang/Object;Ljavax/naming/directory/Attributes;)V", "4", "7"},
    {"createSubcontext", "(Ljavax/naming/Name;Ljavax/naming/directory/Attributes;)Ljavax/naming/directory/DirContext;", "4", "7"},
    {"rebind", "(Ljavax/naming/Name;Ljava/lang/Object;Ljavax/naming/directory/Attributes;)V", "4", "7"},
    {"getSchema", "(Ljavax/naming/Name;)Ljavax/naming/directory/DirContext;", "4", "7"},
    {"getSchemaClassDefinition", "(Ljavax/naming/Name;)Ljavax/naming/directory/DirContext;", "4", "7"},
    {"modifyAttributes", "(Ljavax/naming/Name;ILjavax/naming/directory/Attributes;)V", "4", "7"},
    {"modifyAttributes", "(Ljavax/naming/Name;[Ljavax/naming/directory/ModificationItem;)V", "4", "7"},
    // The servlet rows again for the Jakarta namespace. The PageContext rows name no servlet
    // type, so as keys they equal the rows above.
    // jakarta/servlet/http/HttpServlet
    {"service", "(Ljakarta/servlet/http/HttpServletRequest;Ljakarta/servlet/http/HttpServletResponse;)V", "5", "4"},
    // jakarta/servlet/jsp/HttpJspPage
    {"_jspService", "(Ljakarta/servlet/http/HttpServletRequest;Ljakarta/servlet/http/HttpServletResponse;)V", "5", "5"},
    // jakarta/servlet/RequestDispatcher
    {"forward", "(Ljakarta/servlet/ServletRequest;Ljakarta/servlet/ServletResponse;)V", "2", "6"},
    {"include", "(Ljakarta/servlet/ServletRequest;Ljakarta/servlet/ServletResponse;)V", "2", "6"},
    // jakarta/servlet/ServletRequest
    {"getRequestDispatcher", "(Ljava/lang/String;)Ljakarta/servlet/RequestDispatcher;", "1", "6"},
    // jakarta/servlet/ServletContext
    {"getRequestDispatcher", "(Ljava/lang/String;)Ljakarta/servlet/RequestDispatcher;", "1", "6"},
    {"getNamedDispatcher", "(Ljava/lang/String;)Ljakarta/servlet/RequestDispatcher;", "1", "6"},
    // jakarta/servlet/jsp/PageContext
    {"forward", "(Ljava/lang/String;)V", "3", "6"},
    {"include", "(Ljava/lang/String;)V", "3", "6"},
    {"include", "(Ljava/lang/String;Z)V", "3", "6"},
};

const int CATALOGUE_ROWS = static_cast<int>(sizeof(CATALOGUE) / sizeof(CATALOGUE[0]));

// The entries live as long as the process; nothing is freed at shutdown. This plain array
// keeps them reachable after the set's own arrays are released at exit, so that leak
// checkers don't count them.
const J2EEMethod* ourCatalogueEntries[CATALOGUE_ROWS];

// Defined after the sets in this file, so that it runs after their construction.
J2EEHelper ourJ2EEHelper;

}  // namespace

J2EEHelper::J2EEHelper() {
  for (const CatalogueInterface& catalogued : INTERFACES) {
    ourAllInterfaceNames.add(catalogued.mySignature);
  }
  for (int i = 0; i < CATALOGUE_ROWS; i++) {
    const char* const* row = CATALOGUE[i];
    int instrumentationType = static_cast<int>(strtol(row[2], nullptr, 10));
    int methodType = static_cast<int>(strtol(row[3], nullptr, 10));
    const J2EEMethod* method = new J2EEMethod(row[0], row[1], instrumentationType, methodType);
    // Some rows repeat a method under a second interface, or in the second namespace, with the
    // same values; as keys they are one, and the first stays.
    if (ourAllMethods.contains(method)) {
      delete method;
      ourCatalogueEntries[i] = nullptr;
    } else {
      ourAllMethods.add(method);
      ourCatalogueEntries[i] = method;
    }
  }
}

jint J2EEHelper::methodTypesOfInterface(const char* signature) {
  if (!ourAllInterfaceNames.contains(signature)) {
    return 0;  // the common case, answered by the hash
  }
  for (const CatalogueInterface& catalogued : INTERFACES) {
    if (strcmp(catalogued.mySignature, signature) == 0) {
      return 1 << catalogued.myMethodType;
    }
  }
  return 0;
}

const J2EEMethod* J2EEHelper::find(const char* name, const char* descriptor) {
  J2EEMethod key = J2EEMethod::borrowed(name, descriptor);
  jint index = ourAllMethods.get_index(&key);
  return index < 0 ? nullptr : ourAllMethods._keys[index];
}

const J2EEMethod* J2EEHelper::find(const MethodInfo* method) {
  return find(method->getName().get(), method->getDescriptor().get());
}

bool J2EEHelper::canBeJ2EEClass(const ClassFile& classFile) {
  if ((classFile.getAccessFlags() & ClassFile::ACC_INTERFACE) != 0) {
    return false;
  }
  const KVector<MethodInfo*>& methods = classFile.getMethods();
  for (int i = 0; i < methods.size(); i++) {
    if (find(methods[i]) != nullptr) {
      return true;
    }
  }
  return false;
}
